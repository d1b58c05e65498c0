#include "fake_rest.h"

fake_rest g_fake_rest;

extern "C" {

int __wrap_rest_init(const char *service_name, void **handle_out) {
    g_fake_rest.service = service_name;
    *handle_out = &g_fake_rest;
    return g_fake_rest.init_result;
}

int __wrap_rest_cb_register(int handle, const char *path, int method, rest_callback callback) {
    g_fake_rest.registrations.push_back({handle, path, method, callback});
    const auto row = static_cast<int>(g_fake_rest.registrations.size());
    return row == g_fake_rest.failing_row ? g_fake_rest.register_result : 0;
}

int __wrap_rest_write(const char *text, size_t length) {
    int result = 0;
    if (!g_fake_rest.write_results.empty()) {
        result = g_fake_rest.write_results.front();
        g_fake_rest.write_results.erase(g_fake_rest.write_results.begin());
    }
    g_fake_rest.written.emplace_back(text, length);
    return result;
}

int __wrap_rest_write_file(const char *download_name, const void *data, size_t length) {
    g_fake_rest.download_name = download_name;
    g_fake_rest.download.assign(static_cast<const char *>(data), length);
    return g_fake_rest.download_result;
}

} // extern "C"
