#include "master/filter.h"

#include "master/bad_request.h"
#include "master/target.h"

#include <array>
#include <cstddef>

namespace {

struct FieldName {
    const char* beginning; // of the filter text, up to and with the opening quote
    FilterField field;
};

constexpr std::array<FieldName, 3> FIELD_NAMES = {{
    {"version eq '", FilterField::version},
    {"os eq '", FilterField::os},
    {"package-type eq '", FilterField::packageType},
}};

bool begins_with(const std::string& text, const std::string& beginning) {
    return text.compare(0, beginning.size(), beginning) == 0;
}

} // namespace

Filter read_filter_query(const std::string& query) {
    const std::string option = "filter=";
    if (!begins_with(query, option))
        throw BadRequest("the only option of a package list is filter");
    const std::string text = percent_decode(query.substr(option.size()));
    for (const FieldName& name : FIELD_NAMES) {
        const std::string beginning = name.beginning;
        const bool closed = text.size() > beginning.size() && text.back() == '\'';
        if (begins_with(text, beginning) && closed)
            return {name.field, text.substr(beginning.size(), text.size() - beginning.size() - 1)};
    }
    throw BadRequest("a filter reads FIELD eq 'VALUE' with FIELD version, os or package-type");
}
