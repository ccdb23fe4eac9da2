// The fixed paths of a master server. The product root is a constant: there is no variable or option to move
// it.

#ifndef PLATFORM_PATHS_H
#define PLATFORM_PATHS_H

#define QV_PRODUCT_ROOT "/usr/ormex"

// The master configuration: a JSON object whose "servers" array names the master server first.
inline constexpr const char* MASTER_CONFIG_FILE = QV_PRODUCT_ROOT "/quorvelle/master.json";

// The debug log is on when this directory holds a directory named after the program.
inline constexpr const char* LOG_DIRECTORY = QV_PRODUCT_ROOT "/quorvelle/logs";

// Compiled message catalogs, one directory per locale.
inline constexpr const char* MESSAGE_DIRECTORY = QV_PRODUCT_ROOT "/quorvelle/msg";

// The authority that the web service's certificate must come from, and this host's own certificate and key.
inline constexpr const char* TLS_AUTHORITY_FILE = QV_PRODUCT_ROOT "/quorvelle/tls/ca.pem";
inline constexpr const char* TLS_HOST_CERTIFICATE_FILE = QV_PRODUCT_ROOT "/quorvelle/tls/host.pem";
inline constexpr const char* TLS_HOST_KEY_FILE = QV_PRODUCT_ROOT "/quorvelle/tls/host.key";

// The package repository.
inline constexpr const char* REPOSITORY_DIRECTORY = QV_PRODUCT_ROOT "/var/global/repo";

// The directory of the package-signing public key, "pubkey.pem".
inline constexpr const char* PACKAGE_KEY_DIRECTORY = QV_PRODUCT_ROOT "/var/global/dunmarel";

#endif
