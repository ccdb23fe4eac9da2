// A volume of a few pages, for full disks. Needs the mount namespace of scripts/sandbox.

#ifndef TESTS_SUPPORT_SMALL_VOLUME_H
#define TESTS_SUPPORT_SMALL_VOLUME_H

#include "tests/support/temporary_directory.h"

#include <cstdlib>

#include <sys/mount.h>

class SmallVolume {
  public:
    // `options` as mount takes them for a tmpfs, for example "size=64k".
    explicit SmallVolume(const std::string& options) {
        if (std::getenv("QV_SANDBOX") == nullptr)
            throw std::runtime_error("run this test by scripts/sandbox --bare: it mounts a volume");
        if (mount("qv-test", directory_.path().c_str(), "tmpfs", 0, options.c_str()) != 0)
            throw std::runtime_error("the test's volume cannot be mounted");
    }
    SmallVolume(const SmallVolume&) = delete;
    SmallVolume& operator=(const SmallVolume&) = delete;
    ~SmallVolume() { umount2(directory_.path().c_str(), MNT_DETACH); }

    std::string path() const { return directory_.path(); }
    std::string path(const std::string& name) const { return directory_.path(name); }
    std::vector<std::string> names() const { return directory_.names(); }

  private:
    TemporaryDirectory directory_;
};

#endif
