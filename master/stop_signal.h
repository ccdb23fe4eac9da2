// Says to all threads at once that the service is to stop.

#ifndef MASTER_STOP_SIGNAL_H
#define MASTER_STOP_SIGNAL_H

#include "platform/file_descriptor.h"

class StopSignal {
  public:
    // Throws StartFailure when the system gives no descriptor.
    StopSignal();

    // Callable from any thread, any number of times.
    void give();

    bool given() const;

    // Readable, for poll, once the signal has been given.
    int descriptor() const { return event_.get(); }

  private:
    FileDescriptor event_;
};

#endif
