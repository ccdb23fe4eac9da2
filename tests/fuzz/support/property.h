// What a fuzzer asserts: a property that holds for every input.

#ifndef TESTS_FUZZ_SUPPORT_PROPERTY_H
#define TESTS_FUZZ_SUPPORT_PROPERTY_H

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

// Ends the process with a signal, which libFuzzer reports together with the input, unless the property holds.
inline void require(bool holds, const char* property) {
    if (holds)
        return;
    static_cast<void>(std::fprintf(stderr, "property violated: %s\n", property));
    std::abort();
}

// What libFuzzer, or the replaying main, calls with each input. Returns -1 for an input that is not worth
// keeping, else 0.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

inline std::string as_text(const std::uint8_t* data, std::size_t size) {
    return {reinterpret_cast<const char*>(data), size};
}

// The text up to its first NUL byte: what C code sees of it.
inline std::string up_to_nul(const std::string& text) {
    return text.c_str();
}

#endif
