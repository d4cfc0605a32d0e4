// The host's side of the XML command exchange with the programmer: one
// command out, one answer back, recognised in the byte stream.
#pragma once

#include <cstdint>

#include "tags/tags.h"

namespace ravik {

// How an expected answer is tested against the text read so far.
enum pbr_kind : int32_t {
    PBR_EXACT = 1,     // equal to the whole text, case counts
    PBR_SUBSTRING = 2, // contained in the text, case counts
    PBR_REGEX = 3,     // regex_match, case ignored
};

// One expected answer. A list of them ends with a null pattern.
struct pbr {
    char *pattern;
    int32_t size; // first-read limit of an exact entry, in bytes
    xtags *doc;   // the pattern parsed, handed out on a match
    int32_t kind;
};

constexpr uint32_t FH_LOG_NAKS = 1;
constexpr uint32_t FH_SETTLE_MS = 3000;
constexpr double FH_READ_LATENCY = 1.5;
constexpr double FH_WAKE_LIMIT = 60.0;
constexpr uint32_t FH_REOPEN_PAUSE_MS = 500;
constexpr int FH_PBR_SLOTS = 4;

struct device_object;

struct fh {
    int32_t ready;
    uint32_t settle_ms;
    uint32_t flags;
    double read_latency;
    device_object *device;
    xtags *response;
    pbr pbrs[FH_PBR_SLOTS];
    pbr *exact_pbr;
    // What came behind a raw-mode answer in the same read: the start of the
    // next answer, such as the final one of a program of 0 sectors.
    char *carry;
};

// The answers known in a fixed form.
extern const char RAWMODE_START1[];
extern const char RAWMODE_START2[];
extern const char COMMIT_RESULT_PATTERN[];
extern const char RESPONSE_PATTERN[];

// Each returns the answer document, owned by the link and valid until the
// next exchange, or null; the error is in the thread's slot.
xtags *fh_send(const tagline *line);
xtags *fh_send_and_expect(const tagline *line, const pbr *expected);
xtags *fh_send_and_switch_to_raw(const tagline *line);
xtags *fh_send_and_wait_commit_result(const tagline *line);
xtags *fh_send_fmt(const char *fmt, ...) __attribute__((format(printf, 1, 2)));
xtags *fh_read_resp();
// True if the last answer holds an ACK; sets the thread's error to 0,
// ERR_NAK or ERR_NO_RESPONSE.
bool fh_check_ack();
// The next operation wakes the link again.
int32_t fh_invalidate();
// The last answer, without waking the link; null when there is no link.
xtags *fh_last_response();
// The value before the call; above 0 sets a new one.
double fh_read_latency(double seconds);
void fh_log_naks(bool enabled);

// Inside the link, shared by the exchange and the reader.
fh *get_fh();
xtags *read_response(fh *link, const pbr *expected);

} // namespace ravik
