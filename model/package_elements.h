// Walks a list of packages element by element. A parsed document takes some six times the memory of its text,
// so a long list is better not parsed whole.

#ifndef MODEL_PACKAGE_ELEMENTS_H
#define MODEL_PACKAGE_ELEMENTS_H

#include "model/json_document.h"

#include <string>

// Takes texts of the one form {"data": [OBJECT, ...]}, in which the service sends its lists; what stands
// behind the closing brace does not count. The text must outlive the walk.
class PackageElements {
  public:
    explicit PackageElements(const std::string& response);

    // The next element; null behind the last one, and from the first place on that is not of the form.
    json_document next();

    // Whether the walk has come to the closing brace of a text that is of the form throughout.
    bool complete() const { return complete_; }

  private:
    bool take(const char* symbol);
    json_document take_object();
    json_document finish();

    const char* position_;
    const char* end_;
    bool first_ = true;
    bool of_form_;
    bool complete_ = false;
};

#endif
