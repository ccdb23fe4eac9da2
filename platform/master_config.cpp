#include "platform/master_config.h"

#include "platform/handle.h"
#include "platform/local_host.h"
#include "platform/paths.h"
#include "platform/regular_file.h"

#include <jansson.h>

#include <cerrno>
#include <memory>
#include <string>
#include <strings.h>
#include <vector>

namespace {

constexpr std::size_t MAX_CONFIG_SIZE = std::size_t{1024} * 1024;

// The names that a master_config points into.
struct ConfigRecord {
    std::vector<std::string> names;
    std::vector<const char*> pointers;
    master_config view{nullptr};
};

std::unique_ptr<ConfigRecord> current_record;

// Takes the names out of "servers". False for a member of another type or an entry that is not a string.
bool take_names(const json_t* document, std::vector<std::string>& names) {
    const json_t* servers = json_object_get(document, "servers");
    if (servers == nullptr)
        return true;
    if (!json_is_array(servers))
        return false;
    for (std::size_t i = 0; i < json_array_size(servers); ++i) {
        const json_t* entry = json_array_get(servers, i);
        if (!json_is_string(entry))
            return false;
        names.emplace_back(json_string_value(entry));
    }
    return true;
}

std::unique_ptr<ConfigRecord> make_record(std::vector<std::string> names) {
    auto record = std::make_unique<ConfigRecord>();
    record->names = std::move(names);
    if (record->names.empty())
        return record;
    for (const std::string& name : record->names)
        record->pointers.push_back(name.c_str());
    record->pointers.push_back(nullptr);
    record->view.server_names = record->pointers.data();
    return record;
}

} // namespace

int QV_read_master_config() {
    std::string text;
    const int error = read_regular_file(MASTER_CONFIG_FILE, MAX_CONFIG_SIZE, text);
    if (error != 0)
        return error;
    const std::unique_ptr<json_t, Release<json_decref>> document(
        json_loadb(text.data(), text.size(), 0, nullptr));
    std::vector<std::string> names;
    if (!json_is_object(document.get()) || !take_names(document.get(), names))
        return EINVAL;
    current_record = make_record(std::move(names));
    return 0;
}

const master_config* get_master_config_ptr() {
    return current_record == nullptr ? nullptr : &current_record->view;
}

int lunt_is_master_server(const char* host) {
    if (host == nullptr || current_record == nullptr || current_record->names.empty())
        return 0;
    const std::string& master = current_record->names.front();
    if (master.empty())
        return 0;
    if (strcasecmp(host, "localhost") == 0)
        return is_this_host(master) ? 1 : 0;
    return strcasecmp(host, master.c_str()) == 0 ? 1 : 0;
}
