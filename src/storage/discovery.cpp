// Storage discovery: the programmer is asked with configure and one
// getStorageInfo per LUN, and the facts are picked out of the free text of
// its log lines, in whichever of the known wordings it uses.
#include <cstdio>
#include <cstring>

#include "core/core.h"
#include "firehose/engine.h"
#include "link/device.h"
#include "link/properties.h"
#include "storage/storage.h"

namespace ravik {

namespace {

constexpr const char *STORAGE_KEY = "api.storage";
constexpr const char *INQUIRY_PREFIX = "UFS Inquiry Command Output: ";

const char *const BLKSZ_PATTERNS[] = {"Device Block Size in Bytes: %x",
                                      "INFO: Device Block Size in Bytes: %x", "SECTOR_SIZE_IN_BYTES=%d"};
const char *const LUNS_PATTERNS[] = {"Device Total Physical Paritions: %x",
                                     "INFO: Device Total Physical Partitions: %x", "num_physical_partitions=%d"};
// The sector count is read at 64 bits; the texts matched are the same.
const char *const SIZE_PATTERNS[] = {"Device Total Logical Blocks: %llx",
                                     "INFO: Device Total Logical Blocks: %llx", "num_partition_sectors=%lld"};

int32_t on_event(int32_t event, void *payload, void *context);

// The first pattern that matches from the start of the value; all but the
// last are hexadecimal.
bool scan_u32(const char *value, const char *const (&patterns)[3], uint32_t *out)
{
    for (const char *p : patterns) {
        unsigned int v = 0;
        if (sscanf(value, p, &v) == 1) {
            *out = v;
            return true;
        }
    }
    return false;
}

bool scan_u64(const char *value, uint64_t *out)
{
    for (const char *p : SIZE_PATTERNS) {
        unsigned long long v = 0;
        if (sscanf(value, p, &v) == 1) {
            *out = v;
            return true;
        }
    }
    return false;
}

// Block size, LUN count and inquiry text, each only while still unknown; a
// line gives at most one fact.
int32_t read_facts(storage *s, const xtags *doc)
{
    list_for_each_safe(it, tmp, &doc->lines)
    {
        const char *value = tagline_get(list_entry(it, tagline, link), "value");
        if (!value)
            continue;
        if (s->blksz == 0 && scan_u32(value, BLKSZ_PATTERNS, &s->blksz)) {
            RK_LOGI("...blksz = %d\n", (int)s->blksz);
            continue;
        }
        if (s->num_luns == 0 && scan_u32(value, LUNS_PATTERNS, &s->num_luns))
            continue;
        if (!s->part && strncmp(value, INQUIRY_PREFIX, strlen(INQUIRY_PREFIX)) == 0) {
            s->part = mem_strdup(value + strlen(INQUIRY_PREFIX));
            if (!s->part)
                return ERR_NO_MEMORY;
            RK_LOGI("...part  = \"%s\"\n", s->part);
        }
    }
    return 0;
}

int32_t read_lun_size(storage *s, const xtags *doc, uint32_t lun)
{
    s->luns[lun].size = 0;
    list_for_each_safe(it, tmp, &doc->lines)
    {
        const char *value = tagline_get(list_entry(it, tagline, link), "value");
        uint64_t sectors = 0;
        if (!value || !scan_u64(value, &sectors))
            continue;
        if (sectors == 0)
            return ERR_BAD_RESPONSE;
        s->luns[lun].size = sectors * s->blksz;
        return 0;
    }
    RK_LOGE("size of LUN #%d not detected!\n", (int)lun);
    return ERR_GENERAL;
}

int32_t init_storage(storage *s)
{
    RK_LOGI("Initializing storage\n");
    if (s->num_luns != 0) {
        pt_clear(s);
        s->num_luns = 0;
    }
    // A rediscovery keeps the block size and inquiry text of the first one:
    // read_facts looks only for what is still unknown.
    xtags *doc = firehose_do_fmt("configure SkipStorageInit=\"0\"");
    int32_t code = get_error();
    if (code != 0)
        RK_RETURN(code);
    doc = firehose_do_fmt("getStorageInfo physical_partition_number=\"0\"");
    if ((code = get_error()) != 0) {
        device_set("provisioning_may_hang", "true");
        RK_RETURN(code);
    }
    device_unset("provisioning_may_hang");
    if ((code = read_facts(s, doc)) != 0)
        RK_RETURN(code);
    if (s->blksz == 0 || s->num_luns == 0)
        RK_RETURN(ERR_BAD_RESPONSE);
    s->type = s->blksz == 512 ? STORAGE_EMMC : s->blksz == 4096 ? STORAGE_UFS : STORAGE_UNKNOWN;
    if (s->type == STORAGE_UNKNOWN)
        RK_RETURN(ERR_BAD_RESPONSE);
    if (s->num_luns > STORAGE_MAX_LUNS)
        RK_RETURN(ERR_GENERAL);
    for (uint32_t i = 0; i < s->num_luns; i++) {
        if ((code = read_lun_size(s, doc, i)) != 0)
            RK_RETURN(code);
        if (i + 1 == s->num_luns)
            break;
        doc = firehose_do_fmt("getStorageInfo physical_partition_number=\"%d\"", (int)i + 1);
        if ((code = get_error()) != 0)
            RK_RETURN(code);
    }
    // A LUN without a valid table is no failure of discovery: the lists
    // hold what was read up to it.
    init_pt(s);
    return 0;
}

void dump_storage(const storage *s)
{
    static const char *const types[] = {"Unknown", "eMMC", "UFS"};
    char a[32], b[32];
    RK_LOGI("\n");
    RK_LOGI("STORAGE {\n");
    RK_LOGI("  type = \"%s\",\n", types[s->type <= STORAGE_UFS ? s->type : 0]);
    RK_LOGI("  part  = \"%s\",\n", s->part ? s->part : "");
    RK_LOGI("  blksz = %u (0x%x),\n", s->blksz, s->blksz);
    RK_LOGI("  num_luns = %d,\n", (int)s->num_luns);
    for (uint32_t i = 0; i < s->num_luns && i < STORAGE_MAX_LUNS; i++) {
        RK_LOGI("  luns[%02d] = {\n", (int)i);
        RK_LOGI("    size = %s,\n", humanize_r(s->luns[i].size, a, sizeof(a)));
        int n = 0;
        list_for_each_safe(it, tmp, &s->ptable[i])
        {
            const pt *p = list_entry(it, pt, link);
            RK_LOGI("    ptable[%02d] = { attrs.needs_bnr = %u, offset = %8s, size = %8s, name = \"%s\" },\n",
                    n++, (unsigned)p->attrs.needs_bnr, humanize_r(p->offset, a, sizeof(a)),
                    humanize_r(p->size, b, sizeof(b)), p->name);
        }
        RK_LOGI("  }\n");
    }
    RK_LOGI("}\n");
    RK_LOGI("\n");
}

int32_t on_event(int32_t event, void *, void *context)
{
    auto *s = static_cast<storage *>(context);
    if (event == DEVICE_EVENT_FREE)
        free_storage(s);
    else if (event == DEVICE_EVENT_SAVE_LOGS)
        dump_storage(s);
    return 0;
}

} // namespace

storage *get_storage()
{
    int32_t code = 0;
    bool created = false;
    storage *s = nullptr;
    device_object *dev = get_device();
    if (!dev) {
        code = get_error();
    } else {
        s = static_cast<storage *>(device_service_get(STORAGE_KEY, sizeof(storage), on_event, &created, &code));
    }
    if (s && created) {
        s->device = dev;
        for (uint32_t i = 0; i < STORAGE_MAX_LUNS; i++) {
            list_init(&s->ptable[i]);
            s->luns[i].index = (int32_t)i;
            s->luns[i].ptable = &s->ptable[i];
            s->luns[i].owner = s;
        }
    }
    if (s && !s->initialized) {
        // Set first: discovery reads the GPTs through calls that come back
        // here, and those must find the record ready.
        s->initialized = true;
        code = init_storage(s);
        if (code != 0) {
            free_storage(s);
            s = nullptr;
        }
    }
    set_error(__add_context("get_storage", code));
    return s;
}

int32_t storage_init()
{
    get_storage();
    return get_error();
}

int32_t storage_invalidate()
{
    if (auto *s = static_cast<storage *>(device_getp(STORAGE_KEY, nullptr)))
        s->initialized = false;
    return 0;
}

int32_t storage_reinit()
{
    storage_invalidate();
    return storage_init();
}

void free_storage(storage *s)
{
    if (!s)
        return;
    pt_clear(s);
    mem_free(s->part);
    device_service_free(STORAGE_KEY, on_event, s);
}

} // namespace ravik
