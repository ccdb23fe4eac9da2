// A text stream that records what had been written to it at each flush.

#ifndef TESTS_SUPPORT_FLUSH_RECORD_H
#define TESTS_SUPPORT_FLUSH_RECORD_H

#include <ostream>
#include <sstream>
#include <string>
#include <vector>

class FlushRecord : std::stringbuf {
  public:
    std::ostream stream{this};
    std::vector<std::string> flushed;

  private:
    int sync() override {
        flushed.push_back(str());
        return 0;
    }
};

#endif
