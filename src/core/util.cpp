#include "core/util.h"

#include <cctype>
#include <cstdio>
#include <cstring>

#include "core/logger.h"
#include "platform/platform.h"

namespace ravik {

double now() { return platform().wall_clock(); }

char *humanize_r(uint64_t value, char *buf, size_t size)
{
    static char shared[64];
    if (!buf) {
        buf = shared;
        size = sizeof(shared);
    }
    unsigned long long v = value;
    if (v == 0 || v % 1024 != 0)
        snprintf(buf, size, "%llu", v);
    else if (v % 0x100000 != 0)
        snprintf(buf, size, "%lluK", v / 1024);
    else if (v % 0x40000000 != 0)
        snprintf(buf, size, "%lluM", v / 0x100000);
    else
        snprintf(buf, size, "%lluG", v / 0x40000000);
    return buf;
}

char *humanize(uint64_t value) { return humanize_r(value, nullptr, 0); }

namespace {
void hexdump_line(const uint8_t *p, size_t offset, size_t n)
{
    // "%8.8x " + 16 * 3 + 1 + "  |" + 16 + "|\n" fits easily.
    char line[128];
    int at = snprintf(line, sizeof(line), "%8.8x ", (unsigned)offset);
    for (size_t j = 0; j < 16; j++) {
        if (j == 8)
            line[at++] = ' ';
        if (j < n)
            at += snprintf(line + at, sizeof(line) - at, "%3.2x", p[j]);
        else
            at += snprintf(line + at, sizeof(line) - at, "   ");
    }
    at += snprintf(line + at, sizeof(line) - at, "  |");
    for (size_t j = 0; j < 16; j++)
        line[at++] = j < n ? (isprint(p[j]) ? (char)p[j] : '.') : ' ';
    snprintf(line + at, sizeof(line) - at, "|\n");
    RK_LOGD("%s", line);
}
} // namespace

void hexdump(const void *data, size_t length)
{
    const uint8_t *p = static_cast<const uint8_t *>(data);
    bool starred = false;
    for (size_t off = 0; off < length; off += 16) {
        size_t n = length - off < 16 ? length - off : 16;
        if (n == 16 && off >= 16 && memcmp(p + off, p + off - 16, 16) == 0) {
            if (!starred)
                RK_LOGD("*\n");
            starred = true;
            continue;
        }
        starred = false;
        hexdump_line(p + off, off, n);
    }
}

namespace {
struct crc_table {
    uint32_t words[256];
    crc_table()
    {
        for (uint32_t i = 0; i < 256; i++) {
            uint32_t c = i;
            for (int k = 0; k < 8; k++)
                c = (c & 1) ? 0xEDB88320u ^ (c >> 1) : c >> 1;
            words[i] = c;
        }
    }
};
} // namespace

uint32_t crc32(uint32_t crc, const void *data, size_t length)
{
    // Built on first use; the language makes a racing first call wait.
    static const crc_table table;
    const uint8_t *p = static_cast<const uint8_t *>(data);
    crc = ~crc;
    for (size_t i = 0; i < length; i++)
        crc = table.words[(crc ^ p[i]) & 0xFF] ^ (crc >> 8);
    return ~crc;
}

char *strtok_r(char *text, const char *delims, char **save)
{
    char *s = text ? text : *save;
    if (!s)
        return nullptr;
    s += strspn(s, delims);
    if (*s == '\0') {
        *save = s;
        return nullptr;
    }
    char *end = s + strcspn(s, delims);
    if (*end) {
        *end = '\0';
        *save = end + 1;
    } else {
        *save = end;
    }
    return s;
}

} // namespace ravik
