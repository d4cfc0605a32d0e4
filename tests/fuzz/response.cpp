// The Firehose response reader against a byte stream from the input: the
// standard test, the raw-mode switch and the wait for a commit result, each
// twice, in turn.
//
// Input: a flags byte (bits 0-1: the first kind of read, the next ones
// follow in turn; bit 2: NAKs not logged; bit 3: debug log), one byte N
// (allocation nth_allocation(N) from the first read on fails, 0 none), then
// the reads of the line.
#include <strings.h>

#include "firehose/link.h"
#include "firehose/scripted_target.h"
#include "fuzz/fuzz.h"

namespace ravik::fuzz {

namespace {

// An answer said to hold an ACK holds a response tag with the value ACK.
void check_ack(const xtags *doc)
{
    if (!doc || !(doc->flags & XTAGS_FLAG_ACK))
        return;
    list_for_each_safe(it, tmp, &doc->lines)
    {
        const tagline *line = list_entry(it, tagline, link);
        const char *value = tagline_get(line, "value");
        if (tagline_is(line, "response") && value && strcasecmp(value, "ACK") == 0)
            return;
    }
    fail("ACK flag without an ACK");
}

} // namespace

void response_one(const uint8_t *data, size_t size)
{
    input in{data, size};
    uint8_t flags = in.byte();
    uint8_t fail_at = in.byte();
    run_isolated([&] {
        test::fake_platform fake;
        if (flags & 8)
            logger_set_level(LOG_DEBUG);
        device_open();
        fake.push_bytes(test::ack());
        check(get_fh() != nullptr, "wake-up");
        if (flags & 4)
            fh_log_naks(false);
        push_reads(fake, in);
        if (fail_at)
            mem_fail_nth(nth_allocation(fail_at));
        xtags *cmd = xtags_create();
        tagline *line = cmd ? xtags_add(cmd, "program") : nullptr;
        if (line)
            tagline_set(line, "value", "x");
        // Each kind of read twice; what the stream holds beyond that stays unread.
        for (int i = 0; i < 8; i++) {
            xtags *doc = nullptr;
            switch ((flags + i) & 3) {
            case 0:
                doc = fh_read_resp();
                break;
            case 1:
                doc = line ? fh_send(line) : nullptr;
                break;
            case 2:
                doc = line ? fh_send_and_switch_to_raw(line) : nullptr;
                break;
            default:
                doc = line ? fh_send_and_wait_commit_result(line) : nullptr;
                break;
            }
            check(fail_at || doc == fh_last_response(), "answer is not the link's");
            check_ack(doc);
            fh_check_ack();
        }
        xtags_free(cmd);
        free_device();
    });
}

} // namespace ravik::fuzz

RAVIK_FUZZ_ENTRY(ravik::fuzz::response_one)
