#pragma once

#include <Lirra/MultiServer.h>

namespace Kelo {

class Server;

// A server's client connections. A client that has just connected first gets the playing
// times the server knows, then joins the set that receives the server's reports.
class KeloMultiServer : public Lirra::MultiServer {
public:
    explicit KeloMultiServer(Server* server);
    // Stops the network thread handing over clients before the server can go.
    ~KeloMultiServer() override;

    // Called on the network thread for each new client.
    bool addCommunicator(Lirra::Communicator* connection) override;
    bool join(Lirra::Communicator* connection);

private:
    Server* _server;
};

}  // namespace Kelo
