// The GUID partition table of a LUN: read so partitions can be named, and
// written from an image that is fitted to the LUN it lands on. Only the
// primary table is ever read.
#pragma once

#include <cstdint>

namespace ravik {

constexpr uint32_t GPT_HEADER_MIN = 92;
constexpr uint32_t GPT_ENTRY_MIN = 128;
constexpr uint32_t GPT_NAME_UNITS = 36;
constexpr uint32_t GPT_ATTR_NEEDS_BNR = 1u << 5;
// A header comes from the target or a container and may say anything: an
// array beyond this is refused rather than allocated and read.
constexpr uint64_t GPT_ARRAY_MAX = 0x100000;

// Fields of the header and of an entry, by byte offset.
enum : uint32_t {
    GPT_HDR_SIZE = 12,
    GPT_HDR_CRC = 16,
    GPT_HDR_MY_LBA = 24,
    GPT_HDR_ALT_LBA = 32,
    GPT_HDR_FIRST_USABLE = 40,
    GPT_HDR_LAST_USABLE = 48,
    GPT_HDR_ENTRY_LBA = 72,
    GPT_HDR_NUM_ENTRIES = 80,
    GPT_HDR_ENTRY_SIZE = 84,
    GPT_HDR_ARRAY_CRC = 88,
    GPT_ENT_FIRST_LBA = 32,
    GPT_ENT_LAST_LBA = 40,
    GPT_ENT_ATTRS = 48,
    GPT_ENT_NAME = 56,
};

struct gpt_slot {
    uint8_t raw[GPT_ENTRY_MIN];
    int32_t lun;
    char name[GPT_NAME_UNITS + 1];
    uint64_t offset; // bytes
    uint64_t size;
    struct {
        uint32_t needs_bnr : 1;
    } attrs;
};

struct gpt_view {
    int32_t lun;
    uint32_t cursor;
    uint8_t header[GPT_HEADER_MIN];
    uint32_t num_slots;
    gpt_slot *slots; // in the same block, behind the view
};

int32_t gpt_open(int32_t lun);
gpt_slot *gpt_read();
void gpt_close();
gpt_view *get_gpt();
// `length` is the memory behind the header; it is left as it was.
int32_t validate_header(int32_t lun, const void *header, uint32_t length);
int32_t validate_array(const void *header, const void *array, uint64_t length);
// Works in the image in place: it holds the backup header afterwards.
int32_t gpt_flash(int32_t lun, void *image, uint32_t size);

} // namespace ravik
