// Which arguments a printf format takes: what makes a translated format safe to use in place of its original.

#ifndef PLATFORM_FORMAT_CONVERSIONS_H
#define PLATFORM_FORMAT_CONVERSIONS_H

#include <optional>
#include <string>
#include <vector>

// The arguments that `format` takes, in order, each as its length modifier and conversion character ("ld" for
// "%-8ld"). A '*' for a width or a precision takes an argument of its own and counts as "d"; "%%" takes none.
// Nothing for a format that must not be used with arguments of known types: one with positional arguments
// ("%1$s"), with "%n", with a width or a precision of more than four digits, or with a conversion that is
// unknown or cut off.
std::optional<std::vector<std::string>> format_conversions(const char* format);

// Whether `translation` can be formatted with the arguments of `original`: both are usable and their
// conversions agree in number, order and type. Flags, widths and precisions may differ.
bool same_conversions(const char* original, const char* translation);

#endif
