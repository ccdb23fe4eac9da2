// A progress bar for work that is counted in bytes.

#ifndef PUBLISHER_PROGRESS_H
#define PUBLISHER_PROGRESS_H

#include <cstdint>
#include <iosfwd>

// Standard error where it is a terminal, else null.
std::ostream* progress_terminal();

class Progress {
  public:
    // Of `total` bytes. Draws on `out`; with a null `out`, never draws.
    Progress(std::uint64_t total, std::ostream* out) : total_(total), out_(out) {}
    Progress(const Progress&) = delete;
    Progress& operator=(const Progress&) = delete;

    // Wipes the bar off its line.
    ~Progress();

    // Counts `bytes` more as done and draws the bar when its percentage has changed.
    void advance(std::uint64_t bytes);

  private:
    std::uint64_t total_;
    std::ostream* out_;
    std::uint64_t done_ = 0;
    int drawn_percent_ = -1;
};

#endif
