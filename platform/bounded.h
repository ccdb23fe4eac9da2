// Bounded handling of C text.

#ifndef PLATFORM_BOUNDED_H
#define PLATFORM_BOUNDED_H

#include <cstddef>

// Copies `source` into the field `destination` of `size` bytes, cut to size - 1 bytes and always terminated.
// A null source counts as empty; a field of no bytes is left alone.
void bounded_copy(char* destination, std::size_t size, const char* source);

// Prints printf-style into `destination` of `size` bytes, cut to size - 1 bytes and always terminated.
void bounded_format(char* destination, std::size_t size, const char* format, ...)
    __attribute__((format(printf, 3, 4)));

// Scans up to `count` unsigned decimal numbers separated by single dots from the start of `text`, with the
// rules of scanf's "%u.%u...": white space and one sign before a number are accepted, and a number that
// exceeds 32 bits is reduced to its low 32 bits. Stores them in `numbers`, sets the others to 0, and returns
// how many were read. A null text holds none.
int bounded_scan_version(const char* text, unsigned* numbers, int count);

#endif
