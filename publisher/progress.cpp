#include "publisher/progress.h"

#include <algorithm>
#include <iomanip>
#include <iostream>
#include <string>

#include <unistd.h>

namespace {

constexpr int BAR_WIDTH = 40;
constexpr const char* WIPE_LINE = "\r\x1b[K";

} // namespace

std::ostream* progress_terminal() {
    return isatty(STDERR_FILENO) != 0 ? &std::cerr : nullptr;
}

Progress::~Progress() {
    if (drawn_percent_ >= 0)
        *out_ << WIPE_LINE << std::flush;
}

void Progress::advance(std::uint64_t bytes) {
    done_ += bytes;
    if (out_ == nullptr || percent() == drawn_percent_)
        return;
    drawn_percent_ = percent();
    draw();
}

int Progress::percent() const {
    if (total_ == 0)
        return 100;
    const double share = static_cast<double>(done_) / static_cast<double>(total_);
    return std::min(100, static_cast<int>(share * 100.0));
}

void Progress::draw() const {
    const int filled = drawn_percent_ * BAR_WIDTH / 100;
    *out_ << "\r[" << std::string(static_cast<std::size_t>(filled), '#')
          << std::string(static_cast<std::size_t>(BAR_WIDTH - filled), ' ') << "] " << std::setw(3)
          << drawn_percent_ << "%" << std::flush;
}
