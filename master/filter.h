// The filter of a package list: FIELD eq 'VALUE'.

#ifndef MASTER_FILTER_H
#define MASTER_FILTER_H

#include <string>

enum class FilterField { version, os, packageType };

struct Filter {
    FilterField field;
    std::string value; // any bytes, matched exactly
};

// Reads the query of a list request, as received: "filter=" and behind it the percent-encoded text FIELD eq
// 'VALUE', where FIELD is version, os or package-type. The value runs from the first quote to the last one,
// so it may hold quotes; "&" and "+" are part of it. Throws BadRequest for any other query.
Filter read_filter_query(const std::string& query);

#endif
