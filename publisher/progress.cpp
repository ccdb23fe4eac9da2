#include "publisher/progress.h"

#include <algorithm>
#include <iomanip>
#include <iostream>
#include <string>

#include <unistd.h>

std::ostream* progress_terminal() {
    return isatty(STDERR_FILENO) != 0 ? &std::cerr : nullptr;
}

Progress::~Progress() {
    if (drawn_percent_ >= 0)
        *out_ << "\r\x1b[K" << std::flush;
}

void Progress::advance(std::uint64_t bytes) {
    constexpr std::size_t BAR_WIDTH = 40;
    done_ += bytes;
    const double share = total_ == 0 ? 1 : static_cast<double>(done_) / static_cast<double>(total_);
    const int percent = std::min(100, static_cast<int>(share * 100.0));
    if (out_ == nullptr || percent == drawn_percent_)
        return;
    drawn_percent_ = percent;
    std::string bar(static_cast<std::size_t>(percent) * BAR_WIDTH / 100, '#');
    bar.resize(BAR_WIDTH, ' ');
    *out_ << "\r[" << bar << "] " << std::setw(3) << percent << "%" << std::flush;
}
