#include "Kelo/KeloMultiServer.h"

#include "Kelo/Server.h"

namespace Kelo {

KeloMultiServer::KeloMultiServer(Server* server) : MultiServer(2), _server(server) {}

KeloMultiServer::~KeloMultiServer() {
    close();
}

bool KeloMultiServer::addCommunicator(Lirra::Communicator* connection) {
    if (!connection)
        return false;
    return _server->clientConnected(connection);
}

bool KeloMultiServer::join(Lirra::Communicator* connection) {
    return MultiServer::addCommunicator(connection);
}

}  // namespace Kelo
