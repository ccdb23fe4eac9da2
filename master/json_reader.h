// Reads a JSON text from front to back without keeping it: a text costs no more memory than its longest
// string, where a tree of its values costs up to eighty times its size ("{}," over and over).

#ifndef MASTER_JSON_READER_H
#define MASTER_JSON_READER_H

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

// Each member reads one value. They throw BadRequest where the text is not JSON. A value of another type
// than the one asked for is skipped, and checked all the same.
class JsonReader {
  public:
    // The text must outlive the reader.
    explicit JsonReader(std::string_view text) : text_(text) {}

    // Calls `member` with each member's name; it must read the member's value. False for another type.
    bool object(const std::function<void(const std::string& name)>& member);

    // Calls `element` for each element; it must read it. False for another type.
    bool array(const std::function<void()>& element);

    std::optional<std::string> string();
    std::optional<std::int64_t> integer();
    void skip();

    // Checks that nothing but white space is left.
    void finish();

  private:
    template <typename Read>
    auto scalar(Read read);
    template <typename Item>
    bool items(char open, char close, Item item);
    char peek();
    void expect(char byte);

    std::string_view text_;
    std::size_t position_ = 0;
    int depth_ = 0;
};

#endif
