// The web service on the network: TLS with client certificates, HTTP, and the road from a request to its
// answer.

#ifndef MASTER_MASTER_SERVER_H
#define MASTER_MASTER_SERVER_H

#include "master/access_log.h"
#include "master/connection.h"
#include "master/service.h"
#include "master/stop_signal.h"

#include <httplib.h>

#include <string>

class MasterServer : public httplib::SSLServer {
  public:
    // Takes the certificate master.pem with its key master.key, and the authority ca.pem that client
    // certificates must come from, out of `tlsDirectory`. Throws StartFailure where one of them cannot be
    // used. Service and log must outlive the server.
    MasterServer(const std::string& tlsDirectory, Service& service, AccessLog& log, const TimeLimits& limits);

    // Begins to listen, and returns where, as "ADDRESS:PORT"; port 0 takes a free one. Connections wait until
    // run() is called. Throws StartFailure.
    std::string listen_on(const std::string& address, int port);

    // Serves clients until stop_serving() is called and the requests under way are answered; false when the
    // system lets it accept no more connections. To be called once.
    bool run();

    // Callable from any thread, before run() as well.
    void stop_serving();

  private:
    bool process_and_close_socket(socket_t socket) override;
    void serve(Connection& connection);
    bool answer_requests(Connection& connection);
    void set_handlers();
    void answer_creation(const httplib::ContentReader& read_body, const httplib::Request& request,
                         httplib::Response& response);

    Service& service_;
    AccessLog& log_;
    TimeLimits limits_;
    StopSignal stop_;
};

#endif
