// The master configuration and this machine's role in it.

#ifndef PLATFORM_MASTER_CONFIG_H
#define PLATFORM_MASTER_CONFIG_H

struct master_config {
    // The server names, master server first, ended by a null pointer; or null where the configuration names
    // none.
    const char* const* server_names;
};

// Reads MASTER_CONFIG_FILE afresh. Returns 0 and keeps the record for get_master_config_ptr. Returns non-zero
// for a missing, unreadable, oversized (over 1 MiB) or malformed file (anything but white space after the
// object is malformed), for a top level that is not an object, for a "servers" that is not an array, and for an
// entry that is not a string; the record of an earlier successful read then stays. "servers" absent or empty is a
// record without names.
int QV_read_master_config();

// The record of the last successful read, or null. It stays valid until the next successful read.
const master_config* get_master_config_ptr();

// Non-zero when `host` is the master server of the configuration read last. For "localhost" the question is
// whether this machine is it: the first server name equals this host's name or fully qualified name (no
// letter case), or resolves to an address of one of this machine's interfaces, all of 127.0.0.0/8 and ::1
// included; where this host's name already equals it, no resolver is asked. Any other host is compared with
// the first server name (no letter case). 0 without a configuration, without a server name, and for a null
// host.
int lunt_is_master_server(const char* host);

#endif
