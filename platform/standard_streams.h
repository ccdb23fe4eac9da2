// Standard input, output and error.

#ifndef PLATFORM_STANDARD_STREAMS_H
#define PLATFORM_STANDARD_STREAMS_H

// Reserves the descriptors 0, 1 and 2 where the caller has closed them, so that no file or connection of the
// program gets one of these numbers and receives what is printed, or is read as a typed answer. They stay as
// unusable as they were: reading from the first and writing to the others fails with EBADF. Call it before
// anything is opened.
void reserve_standard_fds();

#endif
