#include "firehose/link.h"

#include <cstdarg>
#include <cstring>

#include "core/core.h"
#include "link/buffer.h"
#include "link/device.h"
#include "link/properties.h"
#include "platform/platform.h"

namespace ravik {

namespace {

constexpr const char *FH_KEY = "api.firehose";
constexpr const char *COMMAND_HEAD = "<?xml version=\"1.0\"?><data><";
constexpr const char *COMMAND_TAIL = "/></data>";

void free_response(fh *link)
{
    xtags_free(link->response);
    link->response = nullptr;
}

void set_response(fh *link, xtags *doc)
{
    free_response(link);
    link->response = doc;
}

int32_t on_event(int32_t event, void *payload, void *context);

void free_fh(fh *link)
{
    free_response(link);
    mem_free(link->carry);
    for (pbr &slot : link->pbrs) {
        mem_free(slot.pattern);
        xtags_free(slot.doc);
    }
    device_service_free(FH_KEY, on_event, link);
}

int32_t on_event(int32_t event, void *, void *context)
{
    if (event == DEVICE_EVENT_FREE)
        free_fh(static_cast<fh *>(context));
    return 0;
}

xtags *send_command(fh *link, const char *text, int32_t length, const pbr *expected)
{
    RK_LOGD("H->D: %s\n", text);
    xtags *doc = nullptr;
    int32_t code;
    if (device_write(text, (uint32_t)length) != length) {
        code = get_error();
    } else {
        doc = read_response(link, expected);
        code = get_error();
    }
    set_error(__add_context("send_command", code));
    return doc;
}

xtags *exchange(const char *name, const tagline *line, const pbr *expected)
{
    fh *link = get_fh();
    if (!link)
        return nullptr;
    free_response(link);
    size_t length = 0;
    char *text = tagline_format_xml(line, &length);
    int32_t code = ERR_NO_MEMORY;
    if (text) {
        set_response(link, send_command(link, text, (int32_t)length, expected));
        code = get_error();
        mem_free(text);
    }
    set_error(__add_context(name, code));
    return link->response;
}

// The command text is built in the transfer buffer and copied out, since the
// answer's reader needs the buffer for itself.
int32_t format_command(const char *fmt, va_list ap, char **text, int32_t *length)
{
    int32_t code = __buffer_acquire();
    if (code != 0)
        return code;
    if (buffer_printf("%s", COMMAND_HEAD) == 0 || buffer_vprintf(fmt, ap) == 0 ||
        buffer_printf("%s", COMMAND_TAIL) == 0 ||
        ((buffer_avail() & 0x1FF) == 0 && buffer_printf("\n") == 0)) {
        code = get_error();
    } else {
        *length = buffer_avail();
        *text = mem_strndup(buffer_base(), (size_t)*length);
        if (!*text)
            code = ERR_NO_MEMORY;
    }
    __buffer_release();
    return code;
}

} // namespace

const char RAWMODE_START1[] =
    "<?xml version=\"1.0\" encoding=\"UTF-8\" ?>\n<data>\n<response value=\"ACK\" rawmode=\"true\" />\n</data>";
const char RAWMODE_START2[] = "<response value=\"ACK\" rawmode=\"true\" />";
const char COMMIT_RESULT_PATTERN[] =
    "<\\?xml.*<response[[:space:]]+value=\".*\"[[:space:]]+commit_result=\".*\"[[:space:]]+/>.*</data>";
const char RESPONSE_PATTERN[] = "<\\?xml.*<response[[:space:]]+value=\".*\"[[:space:]]+/>.*</data>";

fh *get_fh()
{
    device_object *dev = get_device();
    if (!dev)
        return nullptr;
    bool created = false;
    int32_t code = 0;
    auto *link = static_cast<fh *>(device_service_get(FH_KEY, sizeof(fh), on_event, &created, &code));
    if (link && created) {
        link->settle_ms = FH_SETTLE_MS;
        link->flags = FH_LOG_NAKS;
        link->read_latency = FH_READ_LATENCY;
        link->device = dev;
    }
    if (link && !link->ready) {
        double start = now();
        RK_LOGI("Waiting for firehose to get ready\n");
        platform().sleep_ms(link->settle_ms);
        // Set first: the nop itself runs through here.
        link->ready = 1;
        for (;;) {
            if (code == 0) {
                fh_send_fmt("nop value=\"Hello\"");
                fh_check_ack();
                code = get_error();
            }
            if (code == 0 || !(FH_WAKE_LIMIT > now() - start))
                break;
            device_close();
            platform().sleep_ms(FH_REOPEN_PAUSE_MS);
            code = device_open();
        }
        if (code != 0) {
            free_fh(link);
            link = nullptr;
        }
    }
    set_error(__add_context("get_fh", code));
    return link;
}

xtags *fh_send(const tagline *line) { return exchange("fh_send", line, nullptr); }

xtags *fh_send_and_expect(const tagline *line, const pbr *expected)
{
    return exchange("fh_send_and_expect", line, expected);
}

xtags *fh_send_and_switch_to_raw(const tagline *line)
{
    static const pbr raw[] = {
        {const_cast<char *>(RAWMODE_START1), 3, nullptr, PBR_EXACT},
        {const_cast<char *>(RAWMODE_START2), 3, nullptr, PBR_SUBSTRING},
        {nullptr, 0, nullptr, 0},
    };
    return fh_send_and_expect(line, raw);
}

xtags *fh_send_and_wait_commit_result(const tagline *line)
{
    static const pbr commit[] = {
        {const_cast<char *>(COMMIT_RESULT_PATTERN), 3, nullptr, PBR_REGEX},
        {nullptr, 0, nullptr, 0},
    };
    return fh_send_and_expect(line, commit);
}

xtags *fh_send_fmt(const char *fmt, ...)
{
    fh *link = get_fh();
    if (!link)
        return nullptr;
    free_response(link);
    char *text = nullptr;
    int32_t length = 0;
    va_list ap;
    va_start(ap, fmt);
    int32_t code = format_command(fmt, ap, &text, &length);
    va_end(ap);
    if (code == 0) {
        set_response(link, send_command(link, text, length, nullptr));
        code = get_error();
        mem_free(text);
    }
    set_error(__add_context("fh_send_fmt", code));
    return link->response;
}

xtags *fh_read_resp()
{
    fh *link = get_fh();
    if (!link)
        return nullptr;
    xtags *doc = read_response(link, nullptr);
    int32_t code = get_error();
    set_response(link, doc);
    set_error(__add_context("fh_read_resp", code));
    return link->response;
}

bool fh_check_ack()
{
    fh *link = get_fh();
    if (!link)
        return false;
    int32_t code = 0;
    if (!link->response)
        code = ERR_NO_RESPONSE;
    else if (!xtags_has_flag(link->response, XTAGS_FLAG_ACK))
        code = ERR_NAK;
    set_error(code);
    return code == 0;
}

int32_t fh_invalidate()
{
    fh *link = get_fh();
    if (link) {
        link->ready = 0;
        // A new programmer owes nothing of what the old one said.
        mem_free(link->carry);
        link->carry = nullptr;
    }
    return 0;
}

xtags *fh_last_response()
{
    auto *link = static_cast<fh *>(device_getp(FH_KEY, nullptr));
    return link ? link->response : nullptr;
}

double fh_read_latency(double seconds)
{
    fh *link = get_fh();
    if (!link)
        return 0;
    double old = link->read_latency;
    if (seconds > 0)
        link->read_latency = seconds;
    return old;
}

void fh_log_naks(bool enabled)
{
    fh *link = get_fh();
    if (!link)
        return;
    if (enabled)
        link->flags |= FH_LOG_NAKS;
    else
        link->flags &= ~FH_LOG_NAKS;
}

} // namespace ravik
