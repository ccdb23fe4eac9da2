// Any bytes as the master configuration: it is taken exactly when it is an object with an array of names, its
// record holds those names, and a file that is refused leaves the last record as it was.

#include "model/json_document.h"
#include "platform/master_config.h"
#include "platform/paths.h"
#include "tests/fuzz/support/files.h"
#include "tests/fuzz/support/property.h"

#include <optional>
#include <strings.h>
#include <vector>

namespace {

using Names = std::vector<std::string>;

// The names that the configuration gives; none when it is unusable.
std::optional<Names> names_in(const std::string& bytes) {
    const JsonDocument document = own_json(json_loadb(bytes.data(), bytes.size(), 0, nullptr));
    if (!json_is_object(document.get()))
        return std::nullopt;
    const json_t* servers = json_object_get(document.get(), "servers");
    if (servers != nullptr && !json_is_array(servers))
        return std::nullopt;
    Names names;
    for (std::size_t i = 0; i < json_array_size(servers); ++i) {
        const char* name = json_string_value(json_array_get(servers, i));
        if (name == nullptr)
            return std::nullopt;
        names.emplace_back(name);
    }
    return names;
}

Names record() {
    const master_config* config = get_master_config_ptr();
    require(config != nullptr, "a record that was read stays");
    Names names;
    if (config->server_names == nullptr)
        return names;
    for (const char* const* name = config->server_names; *name != nullptr; ++name)
        names.emplace_back(*name);
    require(!names.empty(), "a configuration without names has no array");
    return names;
}

Names read_a_good_one() {
    put_file(MASTER_CONFIG_FILE, R"({"servers": ["before.example.com", "other.example.com"]})");
    require(QV_read_master_config() == 0, "a good configuration is read");
    return record();
}

void check_role(const Names& names) {
    const std::string master = names.empty() ? "" : names.front();
    // Whether this host is the master would be asked of the network.
    if (strcasecmp(master.c_str(), "localhost") == 0)
        return;
    require(lunt_is_master_server(master.c_str()) == (master.empty() ? 0 : 1),
            "the first name, and no other, is the master server's");
    require(lunt_is_master_server((master + "x").c_str()) == 0, "another name is not the master server's");
}

} // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string bytes = as_text(data, size);
    const Names before = read_a_good_one();
    put_file(MASTER_CONFIG_FILE, bytes);
    const std::optional<Names> expected = names_in(bytes);
    require((QV_read_master_config() == 0) == expected.has_value(),
            "an object with an array of names, or without, is a configuration, and nothing else");
    require(record() == expected.value_or(before), "the record holds the names last read");
    check_role(record());
    return 0;
}
