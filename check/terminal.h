// What a terminal gets besides the text: a progress bar and colours.

#ifndef CHECK_TERMINAL_H
#define CHECK_TERMINAL_H

#include <chrono>
#include <cstdint>

// Whether standard output takes colours: a terminal of 60 columns or more that is not "dumb", and NO_COLOR is
// unset.
bool has_colours();

// Draws how many of `total` bytes are done on standard error, where that is a terminal that is not "dumb":
// bar, bytes and time left, below 60 columns the percentage alone.
class Progress {
  public:
    Progress(std::uint64_t total, bool wanted);
    Progress(const Progress&) = delete;
    Progress& operator=(const Progress&) = delete;

    // Wipes what was drawn.
    ~Progress();

    void draw(std::uint64_t done);

  private:
    std::uint64_t total_;
    int columns_;
    bool drawn_ = false;
    std::chrono::steady_clock::time_point start_ = std::chrono::steady_clock::now();
};

#endif
