// Standard input, output and error.

#ifndef PLATFORM_STANDARD_STREAMS_H
#define PLATFORM_STANDARD_STREAMS_H

// Occupies the numbers of those that the caller has closed, so that no file or connection which the program
// opens gets one and takes what is printed, or is read as an answer typed. They stay as unusable as they
// were: reading from the one and writing to the others fails with EBADF. To be called before anything is
// opened.
void occupy_standard_streams();

#endif
