// Walks a list of packages element by element. A parsed document takes some six times the memory of its text,
// so a long list is better not parsed whole.

#ifndef MODEL_PACKAGE_ELEMENTS_H
#define MODEL_PACKAGE_ELEMENTS_H

#include "model/json_document.h"

#include <string>

// Takes texts in which the service sends its lists: one object with a member "data", an array, and whatever
// else beside it. What follows the closing brace does not count. The text must outlive the walk.
class PackageElements {
  public:
    explicit PackageElements(const std::string& response);

    // The next element of the array, of whatever type; null after the last one, and from the first place
    // that is malformed.
    JsonDocument next();

    // Whether the walk has reached the closing brace of a well-formed text.
    bool complete() const { return place_ == Place::END && has_list_; }

  private:
    enum class Place { FIRST_MEMBER, MEMBERS, FIRST_ELEMENT, ELEMENTS, END, MALFORMED };

    bool take(const char* symbol);
    JsonDocument take_value(std::size_t enclosing);
    JsonDocument take_element();
    void take_member();
    Place take_member_value(const std::string& name);

    const char* position_;
    Place place_;
    bool has_list_ = false;
};

#endif
