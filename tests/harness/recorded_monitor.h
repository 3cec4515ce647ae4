// A format monitor that records everything an engine reports.
#pragma once

#include <cstdarg>
#include <cstdio>
#include <string>
#include <vector>

#include "layout/format_monitor.h"

namespace qfs_exfat_test {

struct recorded_monitor {
    std::vector<std::string> infos, warnings, errors;
    std::string fs_name, label;
    uint32_t cluster_size = 0;
    uint64_t total = 0, data_area = 0, free_space = 0;
    std::vector<uint32_t> percents;
    format_monitor monitor{};

    recorded_monitor() {
        monitor.message_context = this;
        monitor.info = [](void *c, const char *f, va_list a) { self(c)->infos.push_back(text(f, a)); };
        monitor.warning = [](void *c, const char *f, va_list a) { self(c)->warnings.push_back(text(f, a)); };
        monitor.error = [](void *c, const char *f, va_list a) { self(c)->errors.push_back(text(f, a)); };
        monitor.report_context = this;
        monitor.file_system_name = [](void *c, const char *n) { self(c)->fs_name = n; };
        monitor.cluster_size = [](void *c, uint32_t v) { self(c)->cluster_size = v; };
        monitor.total_size = [](void *c, uint64_t v) { self(c)->total = v; };
        monitor.data_area_size = [](void *c, uint64_t v) { self(c)->data_area = v; };
        monitor.free_space = [](void *c, uint64_t v) { self(c)->free_space = v; };
        monitor.label = [](void *c, const char *l) { self(c)->label = l; };
        monitor.progress = [](void *c, uint32_t p, const char *) { self(c)->percents.push_back(p); };
    }
    recorded_monitor(const recorded_monitor &) = delete;
    recorded_monitor &operator=(const recorded_monitor &) = delete;

    const format_monitor *get() const { return &monitor; }

private:
    static recorded_monitor *self(void *c) { return static_cast<recorded_monitor *>(c); }
    static std::string text(const char *format, va_list args) {
        char buffer[1024];
        vsnprintf(buffer, sizeof(buffer), format, args);
        return buffer;
    }
};

} // namespace qfs_exfat_test
