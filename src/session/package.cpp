#include "session/package.h"

#include "container/container.h"
#include "core/core.h"
#include "link/properties.h"

namespace ravik {

namespace {

constexpr const char *INDEX_NAME = "index.xml";

// The first board of this id that has a name; null if none.
tagline *find_board(xtags *index, uint32_t id)
{
    list_for_each_safe(it, tmp, &index->lines)
    {
        tagline *line = list_entry(it, tagline, link);
        if (tagline_is(line, "board") && tagline_getu(line, "id", 0) == id && tagline_get(line, "name"))
            return line;
    }
    return nullptr;
}

xtags *parse_entry(simg *image, const char *name, bool *loaded)
{
    *loaded = false;
    simg_entry *entry = simg_loads(image, name);
    if (!entry)
        return nullptr;
    *loaded = true;
    xtags *doc = xtags_create();
    if (!doc) {
        RK_LOGE("Out of memory!\n");
    } else if (xtags_parse(doc, reinterpret_cast<const char *>(entry->data)) != 0) {
        RK_LOGE("Error parsing %s\n", name);
        xtags_free(doc);
        doc = nullptr;
    }
    simg_unload(image, name);
    return doc;
}

} // namespace

xtags *load_package(simg *image)
{
    uint32_t id = device_getu("cpu.id", 0);
    bool loaded = false;
    xtags *index = parse_entry(image, INDEX_NAME, &loaded);
    if (!index) {
        if (!loaded)
            RK_LOGE("Error loading %s from %s\n", INDEX_NAME, image->path);
        return nullptr;
    }
    tagline *board = find_board(index, id);
    if (!board) {
        RK_LOGE("Failed identify board. Wrong package?\n");
        xtags_free(index);
        return nullptr;
    }
    const char *name = tagline_get(board, "name");
    device_set("cpu.name", name);
    if (const char *storage = tagline_get(board, "storage.type"))
        device_set("storage.type", storage);

    // The board's name lives in the property store from here on; the
    // index's own copy goes with the index.
    name = device_get("cpu.name", name);
    xtags *package = nullptr;
    if (xtags_add_filter(index, "protocol", "ravik") != 0 || xtags_add_filter(index, "cpu.name", name) != 0 ||
        xtags_filter(index) != 0) {
        RK_LOGE("Out of memory!\n");
    } else {
        const char *filename = xtags_get(index, "package", "filename");
        if (!filename || !*filename) {
            RK_LOGE("No suitable package found for %s\n", name);
        } else {
            RK_LOGI("...filename = %s\n", filename);
            package = parse_entry(image, filename, &loaded);
        }
    }
    xtags_free(index);
    return package;
}

} // namespace ravik
