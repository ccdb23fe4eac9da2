// Walks a list of packages element by element. A parsed document takes some six times the memory of its text,
// so a long list is better not parsed whole.

#ifndef MODEL_PACKAGE_ELEMENTS_H
#define MODEL_PACKAGE_ELEMENTS_H

#include "model/json_document.h"

#include <string>

// Takes texts in which the service sends its lists: one object with a member "data", an array, and whatever
// else beside it. What stands behind the closing brace does not count. The text must outlive the walk.
class PackageElements {
  public:
    explicit PackageElements(const std::string& response);

    // The next element of the array, of whatever type; null behind the last one, and from the first place on
    // that is not of the form.
    json_document next();

    // Whether the walk has come to the closing brace of a text that is of the form throughout.
    bool complete() const { return place_ == Place::END && has_list_; }

  private:
    enum class Place { FIRST_MEMBER, MEMBERS, FIRST_ELEMENT, ELEMENTS, END, ASTRAY };

    bool take(const char* symbol);
    json_document take_value(std::size_t enclosing);
    json_document take_element();
    void take_member();
    Place take_member_value(const std::string& name);

    const char* position_;
    Place place_;
    bool has_list_ = false;
};

#endif
