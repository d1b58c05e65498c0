#include "can_dx_fake.h"

#include "can_journal.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <memory>

struct dx_tag {
    std::string name;
    std::vector<uint8_t> value;
    void *user;
    bool has_read;
    unsigned index;
    dx_entry entry;
};

struct dx_handle {
    dx_dispatch dispatch;
    void *user;
};

namespace {

can_dx_settings settings;
dx_handle the_handle;
unsigned next_index = 0;
std::vector<std::unique_ptr<dx_tag>> tags;

void deliver(const std::array<uint8_t, DX_BITMAP_BYTES> &bitmap) {
    the_handle.dispatch(&the_handle, bitmap.data());
}

} // namespace

can_dx_settings &can_dx() {
    return settings;
}

void can_dx_reset() {
    settings = {};
    next_index = 0;
}

size_t can_dx_tag_count() {
    return tags.size();
}

dx_tag *can_dx_find(const std::string &name) {
    const auto found =
        std::find_if(tags.begin(), tags.end(), [&](const auto &tag) { return tag->name == name; });
    return found == tags.end() ? nullptr : found->get();
}

const std::vector<uint8_t> &can_dx_value(const dx_tag *tag) {
    return tag->value;
}

void can_dx_put_silently(const std::string &name, const std::vector<uint8_t> &value) {
    dx_tag *tag = can_dx_find(name);
    std::fill(tag->value.begin(), tag->value.end(), uint8_t{0});
    std::copy_n(value.begin(), std::min(value.size(), tag->value.size()), tag->value.begin());
    tag->has_read = false;
}

void can_dx_put(const std::string &name, const std::vector<uint8_t> &value) {
    can_dx_put_silently(name, value);
    can_dx_deliver(can_dx_find(name)->index);
}

void can_dx_deliver(unsigned index) {
    std::array<uint8_t, DX_BITMAP_BYTES> bitmap{};
    bitmap[index / 8] = static_cast<uint8_t>(1U << (index % 8));
    deliver(bitmap);
}

void can_dx_deliver_all() {
    std::array<uint8_t, DX_BITMAP_BYTES> bitmap{};
    bitmap.fill(0xff);
    deliver(bitmap);
}

unsigned can_dx_index(const dx_tag *tag) {
    return tag->index;
}

void can_dx_move(dx_tag *tag, unsigned index) {
    tag->index = index;
}

dx_handle *dx_new(const char *name, dx_dispatch dispatch) {
    can_note(std::string("join ") + name);
    if (settings.refuse_handle) {
        return nullptr;
    }
    the_handle = {dispatch, nullptr};
    return &the_handle;
}

void dx_destroy(dx_handle *handle) {
    if (handle != nullptr) {
        can_note("leave");
    }
}

void dx_set_user_data(dx_handle *handle, void *data) {
    handle->user = data;
}

void *dx_get_user_data(dx_handle *handle) {
    return handle->user;
}

dx_tag *dx_tag_provider_new(dx_handle *handle, const char *name, int type, size_t size, int mode) {
    if (handle != &the_handle || settings.refuse_tags) {
        return nullptr;
    }
    can_note("provide " + std::string(name) + " type " + std::to_string(type) + " size " +
             std::to_string(size) + " mode " + std::to_string(mode));
    tags.push_back(std::make_unique<dx_tag>());
    dx_tag *tag = tags.back().get();
    tag->name = name;
    tag->value.resize(dx_get_value_size(type, size));
    tag->has_read = true;
    tag->index = settings.share_index ? 0 : next_index++ % DX_INDEX_COUNT;
    tag->entry = {tag, nullptr};
    return tag;
}

void dx_tag_destroy(dx_tag *tag) {
    if (tag == nullptr) {
        return;
    }
    can_note("destroy " + tag->name);
    std::erase_if(tags, [tag](const auto &candidate) { return candidate.get() == tag; });
}

void dx_tag_set_user_data(dx_tag *tag, void *data) {
    tag->user = data;
}

void *dx_tag_get_user_data(const dx_tag *tag) {
    return tag->user;
}

size_t dx_get_value_size(int type, size_t size) {
    constexpr std::array<size_t, 11> widths = {0, 1, 2, 4, 8, 1, 2, 4, 8, 4, 8};
    const auto index = static_cast<size_t>(type);
    return index < widths.size() ? std::max(widths[index], size) : size;
}

int dx_tag_read(dx_tag *tag, void *buffer, size_t size) {
    if (settings.fail_reads) {
        return -1;
    }
    const size_t length = std::min(size, tag->value.size());
    if (length != 0) {
        memcpy(buffer, tag->value.data(), length);
    }
    tag->has_read = true;
    return static_cast<int>(length);
}

int dx_tag_write(dx_handle *handle, dx_tag *tag, const void *data, size_t size) {
    if (handle != &the_handle || settings.fail_writes || size > tag->value.size()) {
        return -1;
    }
    std::fill(tag->value.begin(), tag->value.end(), uint8_t{0});
    if (size != 0) {
        memcpy(tag->value.data(), data, size);
    }
    can_note("write " + tag->name + " " + can_hex({static_cast<const uint8_t *>(data), size}));
    return 0;
}

int dx_tag_notify(dx_handle *handle) {
    can_note("commit");
    return handle == &the_handle ? 0 : -1;
}

dx_entry *dx_lookup_head(dx_handle *handle, unsigned index) {
    dx_entry *head = nullptr;
    for (const auto &tag : tags) {
        if (handle == &the_handle && tag->index == index) {
            tag->entry.next = head;
            head = &tag->entry;
        }
    }
    return head;
}

int dx_tag_has_read(const dx_tag *tag) {
    return tag->has_read ? 1 : 0;
}
