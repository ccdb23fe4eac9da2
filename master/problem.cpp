#include "master/problem.h"

#include <cstdio>
#include <exception>

void report_problem(const std::string& text) noexcept {
    try {
        std::string line = "qvmaster: ";
        for (const char c : text) {
            const bool control = static_cast<unsigned char>(c) < 0x20 || c == 0x7f;
            line += control ? '?' : c;
        }
        line += '\n';
        // There is no further place to report to.
        static_cast<void>(std::fwrite(line.data(), 1, line.size(), stderr));
    } catch (const std::exception&) {
        static_cast<void>(std::fputs("qvmaster: out of memory\n", stderr));
    }
}
