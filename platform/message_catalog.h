// The message catalog: user-visible texts by identifier, in the user's language, with an English default
// text.
//
// Catalogs are POSIX message catalogs (gencat) in UTF-8, MESSAGE_DIRECTORY/LOCALE/qvrepo.cat, set 1; the
// message number is the four digits of the identifier ("TqlRpo0025N" is message 25).

#ifndef PLATFORM_MESSAGE_CATALOG_H
#define PLATFORM_MESSAGE_CATALOG_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

// Fills `messages` (`messagesSize` bytes) with the locale in which messages are shown: the first of LC_ALL,
// LC_MESSAGES and LANG that is set and not empty, else "C". A name that does not begin with a letter, holds a
// character outside letters, digits and "_-.@", or exceeds the buffer counts as "C", and no later
// variable is tried then. The four further buffers receive the same name, cut to their sizes; each may be
// null. Returns 0; `*errorStatus` receives 0.
int mxgetlocaleEx(char* messages, std::size_t messagesSize, char* buffer2, std::size_t size2, char* buffer3,
                  std::size_t size3, char* buffer4, std::size_t size4, char* buffer5, std::size_t size5,
                  std::int64_t* errorStatus);

// Renders message `id` in `locale` into `buffer` (`size` bytes) and, where `locale2` is not null, in
// `locale2` into `buffer2` (`size2` bytes); the arguments after `defaultFormat` are formatted printf-style
// into both. For a locale such as "ja_JP.UTF-8" the catalogs of ja_JP.UTF-8, ja_JP and ja are asked in turn;
// "C", "POSIX" and the empty or null locale always give the default text, and so does a catalog text whose
// conversions differ from those of the default text in number, order or type. A text that exceeds its buffer is
// cut at a character boundary; buffers are always terminated (a buffer of no bytes is left alone). Returns 0.
int mxgetmsg(const char* id, const char* locale, std::size_t size, char* buffer, const char* locale2,
             std::size_t size2, char* buffer2, const char* defaultFormat, ...)
    __attribute__((format(printf, 8, 9)));

// The directories below MESSAGE_DIRECTORY in which the catalogs of `locale` may be found, best first.
std::vector<std::string> catalog_locales(const std::string& locale);

// The text of message `id` in `locale`, not rendered: the first that set `set` of a program's own catalog
// MESSAGE_DIRECTORY/LOCALE/CATALOG.cat holds, by the rules above, else the default text.
std::string catalog_format(const char* catalog, int set, const char* id, const char* locale,
                           const char* defaultFormat);

// The platform's standard text for a status code: "status code N". The text is in a static buffer that
// the next call overwrites. `flags` is 0.
const char* getECmsgl(int status, int flags);

#endif
