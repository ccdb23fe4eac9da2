// Any text as the web service's error answer: it is usable exactly when the JSON library finds both members
// in it, any code then gives the user one line, and what the service writes itself can always be read.

#include "cli/request.h"
#include "cli/status.h"
#include "master/package_json.h"
#include "model/json_document.h"
#include "platform/status_codes.h"
#include "tests/fuzz/support/property.h"

#include <sstream>

namespace {

constexpr long UNTOUCHED = -4711;

void check_reading(const std::string& text, long& code) {
    const JsonDocument document = own_json(json_loads(text.c_str(), JSON_DISABLE_EOF_CHECK, nullptr));
    const json_t* number = json_object_get(document.get(), "errorCode");
    const json_t* message = json_object_get(document.get(), "errorMessage");
    const bool usable = json_is_integer(number) && json_is_string(message);
    const int status = parseJSONErrorResponse(text, code);
    require(status == (usable ? 0 : STATUS_UNEXPECTED_RESPONSE), "an error needs a code and a message");
    require(code == (json_is_integer(number) ? json_integer_value(number) : UNTOUCHED),
            "the code is taken when it is there, whatever else is missing");
}

void check_line(int status) {
    std::ostringstream out;
    showCommandStatus(status, "main", out);
    const std::string line = out.str();
    if (status == 0) {
        require(line.empty(), "success is silent");
        return;
    }
    require(line.size() > 1 && line.find('\n') == line.size() - 1, "a status is one line");
    require((line.compare(0, 7, "Error: ") == 0) == (status != STATUS_DELETE_CANCELED),
            "every status but a canceled deletion is an error");
    bool known = false;
    for (const StatusMessage& row : STATUS_MESSAGES)
        known = known || row.code == status;
    require(known == (line.find("with status [" + std::to_string(status) + "]") == std::string::npos),
            "a status without a text of its own is shown as its number");
}

} // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string text = as_text(data, size);
    long code = UNTOUCHED;
    check_reading(text, code);
    check_line(static_cast<int>(code));

    long written = UNTOUCHED;
    require(parseJSONErrorResponse(error_body(7218, up_to_nul(text)), written) == 0 && written == 7218,
            "an error that the service writes can be read, whatever its text");
    return 0;
}
