#include "firehose/engine.h"

#include <cstdarg>
#include <cstring>

#include "container/container.h"
#include "core/core.h"
#include "firehose/commands.h"
#include "firehose/link.h"
#include "link/buffer.h"
#include "link/device.h"
#include "link/properties.h"

namespace ravik {

namespace {

constexpr const char *MODULE_KEY = "module.firehose";

int32_t on_event(int32_t event, void *payload, void *context);

void free_firehose(firehose_module *m) { device_service_free(MODULE_KEY, on_event, m); }

int32_t on_event(int32_t event, void *, void *context)
{
    if (event == DEVICE_EVENT_FREE)
        free_firehose(static_cast<firehose_module *>(context));
    return 0;
}

// The ufs tags staged for a commit belong to their recipe document: they
// leave the list when it goes, so the list never points into freed memory.
void release_recipe(xtags *recipe)
{
    if (!recipe)
        return;
    list_head *heads[] = {&recipe->lines, &recipe->dropped};
    for (list_head *head : heads)
        list_for_each_safe(it, tmp, head)
        {
            tagline *tag = list_entry(it, tagline, link);
            if (tag->aux_link.next)
                list_del(&tag->aux_link);
        }
    xtags_free(recipe);
}

xtags *do_command(tagline *tag)
{
    struct route {
        const char *name;
        xtags *(*handler)(tagline *);
    };
    // Compared in this order; the first match handles the tag.
    static const route routes[] = {
        {"sleep", do_sleep},     {"print", do_print},   {"logger", do_logger},
        {"configure", do_configure}, {"setbootablestoragedrive", do_setbootable},
        {"power", do_power},     {"program", do_program}, {"read", do_read},
        {"dump", do_dump},       {"wipe", do_wipe},     {"patch", do_patch},
        {"ufs", do_ufs},         {"storage", do_storage}, {"backup", do_backup},
        {"restore", do_restore}, {"flash", do_flash},
    };
    for (const route &r : routes)
        if (tagline_is(tag, r.name))
            return r.handler(tag);
    // Anything the host does not know goes to the target as it stands.
    xtags *doc = fh_send(tag);
    set_error(no_response_code(doc, get_error()));
    return doc;
}

} // namespace

xtags *do_recipe(xtags *doc)
{
    int32_t code = 0;
    int count = 0;
    xtags *last = nullptr;
    list_for_each_safe(it, tmp, &doc->lines)
    {
        tagline *tag = list_entry(it, tagline, link);
        count++;
        last = do_command(tag);
        code = get_error();
        if (code == 0 && last && !fh_check_ack())
            code = get_error();
        if (code != 0 && xtags_has_flag(doc, XTAGS_FLAG_IGNORE_ERRORS)) {
            RK_LOGI("%s %s: Error: %s\n", tag->name, tag->attrs ? tag->attrs : "", format_error(code));
            RK_LOGI("Continuing\n");
            code = 0;
        }
        if (code != 0)
            break;
    }
    if (count == 0) {
        RK_LOGE("No compatible command found!\n");
        code = ERR_NOT_FOUND;
    }
    set_error(__add_context("do_recipe", code));
    return last;
}

xtags *do_package(xtags *doc)
{
    int32_t code = 0;
    int count = 0;
    xtags *last = nullptr;
    xtags *recipe = nullptr;
    firehose_module *m = get_firehose();
    simg *input = m ? m->input : nullptr;
    const char *loaded = nullptr;
    list_for_each_safe(it, tmp, &doc->lines)
    {
        tagline *tag = list_entry(it, tagline, link);
        if (!tagline_is(tag, "recipe"))
            continue;
        count++;
        const char *filename = tagline_get(tag, "filename");
        if (!filename) {
            RK_LOGE("recipe missing filename!\n");
            code = ERR_GENERAL;
            break;
        }
        RK_LOGD("Recipe: %s\n", filename);
        if (loaded)
            simg_unload(input, loaded);
        loaded = nullptr;
        simg_entry *entry = input ? simg_loads(input, filename) : nullptr;
        if (!entry) {
            RK_LOGE("Error loading %s\n", filename);
            code = ERR_LOAD_ENTRY;
            break;
        }
        loaded = filename;
        release_recipe(recipe);
        recipe = xtags_create();
        if (!recipe) {
            RK_LOGE("Out of memory!\n");
            code = ERR_NO_MEMORY;
            break;
        }
        apply_filters(recipe);
        // Filters first, so the parse leaves only the compatible commands.
        if (xtags_parse(recipe, reinterpret_cast<const char *>(entry->data)) != 0) {
            RK_LOGE("Failed to parse: %s\n", filename);
            code = ERR_NO_MEMORY; // the parser fails only without memory
            break;
        }
        simg_unload(input, filename);
        loaded = nullptr;
        if (tagline_getb(tag, "ignore_errors", false))
            xtags_set_flag(recipe, XTAGS_FLAG_IGNORE_ERRORS);
        last = do_recipe(recipe);
        code = get_error();
        if (code != 0)
            break;
    }
    if (code == 0 && count == 0) {
        RK_LOGE("No compatible recipe found!\n");
        code = ERR_NOT_FOUND;
    }
    if (loaded)
        simg_unload(input, loaded);
    release_recipe(recipe);
    set_error(__add_context("do_package", code));
    return last;
}

firehose_module *get_firehose()
{
    bool created = false;
    int32_t code = 0;
    if (!get_device())
        return nullptr;
    auto *m = static_cast<firehose_module *>(
        device_service_get(MODULE_KEY, sizeof(firehose_module), on_event, &created, &code));
    if (m && created) {
        list_init(&m->ufs_commands);
        m->device = get_device();
        m->initialised = true;
        code = init_firehose();
        if (code != 0) {
            free_firehose(m);
            m = nullptr;
        }
    }
    set_error(__add_context("get_firehose", code));
    return m;
}

simg *firehose_get_input()
{
    firehose_module *m = get_firehose();
    return m ? m->input : nullptr;
}

simg *firehose_set_input(simg *input)
{
    firehose_module *m = get_firehose();
    if (!m)
        return nullptr;
    simg *old = m->input;
    m->input = input;
    return old;
}

int32_t apply_filters(xtags *doc)
{
    struct {
        const char *key;
        const char *value;
    } filters[] = {
        {"protocol", "ravik"},
        {"protocol", "fastboot"},
        {"storage.type", device_get("storage.type", nullptr)},
        {"cpu.name", device_get("cpu.name", nullptr)},
        {"cpu.vername", device_get("cpu.vername", nullptr)},
        {"cpu.serial", device_get("cpu.serial", nullptr)},
    };
    for (auto &f : filters) {
        if (!f.value || !*f.value)
            continue;
        int32_t code = xtags_add_filter(doc, f.key, f.value);
        if (code != 0)
            return code;
    }
    return 0;
}

xtags *firehose_do(xtags *doc)
{
    if (!get_firehose())
        return nullptr;
    apply_filters(doc);
    xtags_filter(doc);
    return xtags_has_flag(doc, XTAGS_FLAG_PACKAGE) ? do_package(doc) : do_recipe(doc);
}

void firehose_do_pkg(xtags *package)
{
    xtags_set_flag(package, XTAGS_FLAG_PACKAGE);
    firehose_do(package);
}

xtags *firehose_do_fmt(const char *fmt, ...)
{
    if (!get_firehose())
        return nullptr;
    int32_t code = __buffer_acquire();
    if (code != 0) {
        set_error(__add_context("firehose_do_fmt", code));
        return nullptr;
    }
    va_list ap;
    va_start(ap, fmt);
    bool printed = buffer_printf("<?xml version=\"1.0\"?><data><") != 0 && buffer_vprintf(fmt, ap) != 0 &&
                   buffer_printf("/></data>") != 0;
    va_end(ap);
    xtags *doc = nullptr;
    if (!printed) {
        code = get_error();
    } else if (!(doc = xtags_create()) || xtags_parse(doc, buffer_base()) != 0) {
        code = ERR_NO_MEMORY;
    }
    // Released before the command runs: the exchange needs the buffer.
    __buffer_release();
    xtags *response = nullptr;
    if (code == 0) {
        response = firehose_do(doc);
        code = get_error();
    }
    release_recipe(doc);
    set_error(__add_context("firehose_do_fmt", code));
    return response;
}

} // namespace ravik
