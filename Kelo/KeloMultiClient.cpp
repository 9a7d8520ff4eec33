#include "Kelo/KeloMultiClient.h"

#include "Kelo/ClientBackend.h"

namespace Kelo {

KeloMultiClient::KeloMultiClient(ClientBackend* backend) : MultiClient(2), _backend(backend) {}

KeloMultiClient::~KeloMultiClient() {
    close();
}

bool KeloMultiClient::addCommunicator(Lirra::Communicator* connection) {
    if (!connection)
        return false;
    _backend->serverConnected(connection);
    return true;
}

bool KeloMultiClient::join(Lirra::Communicator* connection) {
    return MultiClient::addCommunicator(connection);
}

}  // namespace Kelo
