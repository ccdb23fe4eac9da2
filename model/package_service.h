// The web service that keeps the packages: where its clients find it, and what they ask it for.

#ifndef MODEL_PACKAGE_SERVICE_H
#define MODEL_PACKAGE_SERVICE_H

#include "platform/QVClientCURL.h"

#include <string>

inline constexpr int WEB_SERVICE_PORT = 1556;

// For an attempt to connect to the service.
inline constexpr long CONNECT_TIMEOUT_SECONDS = 30;

// The resource of all packages, relative to the service's root.
inline constexpr const char* PACKAGES_URI = "quorvelle/deployment/packages";

// The versioned media type that every request accepts.
extern const std::string QV_MEDIA_TYPE_VERSION;

// A client for the master server's web service. Nothing is sent yet.
QVClientCURL master_server_client(const std::string& masterServer);

#endif
