// Owners for the handles of C libraries.

#ifndef PLATFORM_HANDLE_H
#define PLATFORM_HANDLE_H

// Makes a std::unique_ptr release what it owns by calling `function`, whose result does not count:
// std::unique_ptr<DIR, Release<closedir>>.
template <auto function>
struct Release {
    template <typename Handle>
    void operator()(Handle* handle) const {
        static_cast<void>(function(handle));
    }
};

#endif
