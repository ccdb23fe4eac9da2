#include "check/json_output.h"

#include <cstdlib>
#include <ctime>
#include <memory>
#include <new>
#include <ostream>

void write_json(std::ostream& out, json_t* value) {
    const std::unique_ptr<char, decltype(&std::free)> text(json_dumps(value, JSON_COMPACT | JSON_ENCODE_ANY),
                                                           &std::free);
    json_decref(value);
    if (!text)
        throw std::bad_alloc();
    out << text.get();
}

void begin_document(std::ostream& out) {
    const std::time_t now = std::time(nullptr);
    std::tm parts{};
    char time[32];
    time[std::strftime(time, sizeof time, "%Y-%m-%dT%H:%M:%SZ", gmtime_r(&now, &parts))] = '\0';
    out << "{\"program\":\"qvcheck\",\"version\":\"" QVREPO_VERSION "\",\"time\":\"" << time << '"';
}
