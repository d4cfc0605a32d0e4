#include "core/error.h"

#include <cstring>

#include "core/tls.h"

namespace ravik {

namespace {

constexpr uint32_t CHAIN_COUNT = 4;
constexpr uint32_t CHAIN_TEXT = 512;

struct err_chain {
    char text[CHAIN_TEXT];
    uint32_t used;
};

struct error_block {
    int32_t last_error;
    err_chain chains[CHAIN_COUNT];
    int32_t next_chain;
};

const char *const messages[] = {
    "",
    "general error",
    "IO error",
    "out of memory",
    "out of room or range",
    "not found",
    "not supported",
    "error opening device",
    "error opening singleimage",
    "error loading package",
    "error loading programmer",
    "bad file format",
    "error loading singleimage entry",
    "bad response",
    "NAK",
    "permission denied",
    "missing parameter",
    "bad parameter",
    "no response",
    "error opening storage",
    "TLS error",
    "already exists",
    "invalid",
    "not started",
};

const char *const sahara_messages[] = {
    "Success",
    "Invalid command received in current state",
    "Protocol mismatch between host and target",
    "Invalid target protocol version",
    "Invalid host protocol version",
    "Invalid packet size received",
    "Unexpected image ID received",
    "Invalid image header size received",
    "Invalid image data size received",
    "Invalid image type received",
    "Invalid transmission length",
    "Invalid reception length",
    "General transmission or reception error",
    "Error while transmitting READ_DATA packet",
    "Cannot receive specified number of program headers",
    "Invalid data length reception for program headers",
    "Multiple shared segments found in ELF image",
    "Uninitialized program header location",
    "Invalid destination address",
    "Invalid data size received in image header",
    "Invalid ELF header received",
    "Unknown host error received in HELLO_RESP",
    "Timeout while receiving data",
    "Timeout while transmitting data",
    "Invalid mode received from host",
    "Invalid memory read address",
    "Host cannot handle read data size requested",
    "Memory debug not supported",
    "Invalid mode switch",
    "Failed to execute command",
    "Invalid parameter passed to command execution",
    "Unsupported client command received",
    "Invalid client command received for data response",
    "Failed to authenticate hash table",
    "Failed to verify hash for a given segment of ELF image",
    "Failed to find hash table in ELF image",
};

error_block *get_cs() { return static_cast<error_block *>(tls_get(TLS_SLOT_ERROR, sizeof(error_block))); }

const char *sahara_err_str(int32_t status)
{
    if (status < 0 || status >= (int32_t)(sizeof(sahara_messages) / sizeof(sahara_messages[0])))
        return "Unknown sahara error";
    return sahara_messages[status];
}

// A code that does not have the form of one (bits above 15, or a chain
// number without a slot) can arrive from outside: a -1 of a lower layer or a
// large target status. Such a value is reported as a general error, so it can
// never index the chains and the caller still gets a readable text.
int32_t normalise(int32_t code)
{
    uint32_t u = (uint32_t)code;
    if ((u >> 16) != 0 || ((u >> 8) & 0xFF) > CHAIN_COUNT)
        return ERR_GENERAL;
    return code;
}

} // namespace

const char *err_str(int32_t n)
{
    if (n == 0)
        return "";
    if (n >= ERR_SAHARA_BASE)
        return sahara_err_str(n - ERR_SAHARA_BASE);
    if (n >= 1 && n <= ERR_NOT_STARTED)
        return messages[n];
    return "unknown error";
}

int32_t __add_context(const char *name, int32_t code)
{
    error_block *cs = get_cs();
    if (!cs || code == 0)
        return code;
    code = normalise(code);
    uint32_t chain = ((uint32_t)code >> 8) & 0xFF;
    if (chain == 0) {
        chain = (uint32_t)cs->next_chain + 1;
        cs->chains[chain - 1].used = 0;
        cs->next_chain = (cs->next_chain + 1) % CHAIN_COUNT;
        code = (int32_t)(((uint32_t)code & 0xFFu) | (chain << 8));
    }
    err_chain *c = &cs->chains[chain - 1];
    if (c->used == 0) {
        const char *msg = err_str(code & ERR_CODE_MASK);
        size_t len = strlen(msg) + 1;
        if (len > CHAIN_TEXT)
            return code;
        memcpy(c->text + CHAIN_TEXT - len, msg, len);
        c->used = (uint32_t)len;
    }
    size_t name_len = strlen(name);
    size_t need = name_len + 4;
    if (need > CHAIN_TEXT - c->used)
        return code;
    char *at = c->text + CHAIN_TEXT - c->used - need;
    memcpy(at, name, name_len);
    memcpy(at + name_len, "()->", 4);
    c->used += (uint32_t)need;
    return code;
}

int32_t set_error(int32_t code)
{
    error_block *cs = get_cs();
    if (cs)
        cs->last_error = code;
    return 0;
}

int32_t get_error()
{
    error_block *cs = get_cs();
    return cs ? cs->last_error : ERR_TLS;
}

const char *format_error(int32_t code)
{
    error_block *cs = get_cs();
    if (code == 0 || !cs)
        return "";
    uint32_t u = (uint32_t)code;
    uint32_t chain = (u >> 8) & 0xFF;
    if ((u >> 16) != 0 || chain > CHAIN_COUNT)
        return err_str(ERR_GENERAL);
    if (chain == 0)
        return err_str(code);
    const err_chain *c = &cs->chains[chain - 1];
    if (c->used == 0)
        return "bug!";
    return c->text + CHAIN_TEXT - c->used;
}

} // namespace ravik
