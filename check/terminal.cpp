#include "check/terminal.h"

#include "model/dunmarel_common.h"

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <string>

#include <sys/ioctl.h>
#include <unistd.h>

namespace {

constexpr int MIN_COLUMNS = 60;
constexpr std::uint64_t BAR_WIDTH = 20;

// 0 where there is no terminal, or one that moves no cursor. A terminal that does not know its width has the
// usual one.
int columns_of(int descriptor) {
    const char* type = std::getenv("TERM");
    winsize size{};
    if (isatty(descriptor) == 0 || type == nullptr || std::string(type) == "dumb" || *type == '\0')
        return 0;
    return ioctl(descriptor, TIOCGWINSZ, &size) == 0 && size.ws_col != 0 ? size.ws_col : 80;
}

} // namespace

bool has_colours() {
    return columns_of(STDOUT_FILENO) >= MIN_COLUMNS && std::getenv("NO_COLOR") == nullptr;
}

Progress::Progress(std::uint64_t total, bool wanted)
    : total_(total), columns_(wanted ? columns_of(STDERR_FILENO) : 0) {}

Progress::~Progress() {
    if (drawn_)
        std::cerr << "\r\x1b[K" << std::flush;
}

void Progress::draw(std::uint64_t done) {
    if (columns_ == 0 || total_ == 0)
        return;
    drawn_ = true;
    const double share = static_cast<double>(done) / static_cast<double>(total_);
    if (columns_ < MIN_COLUMNS) {
        std::cerr << '\r' << static_cast<int>(share * 100) << "%\x1b[K" << std::flush;
        return;
    }
    const auto filled = static_cast<std::size_t>(share * static_cast<double>(BAR_WIDTH));
    const std::chrono::duration<double> elapsed = std::chrono::steady_clock::now() - start_;
    const auto left = share > 0 ? std::lround(elapsed.count() * (1 - share) / share) : 0L;
    char clock[32];
    static_cast<void>(std::snprintf(clock, sizeof clock, "%ld:%02ld", left / 60, left % 60));
    std::cerr << "\r[" << std::string(filled, '#') << std::string(BAR_WIDTH - filled, ' ') << "] "
              << formatSize(done) << " / " << formatSize(total_) << "  -" << clock << "\x1b[K" << std::flush;
}
