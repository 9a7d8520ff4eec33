#pragma once

#include <Lirra/MultiClient.h>

namespace Kelo {

class ClientBackend;

// The client backend's connections to servers. A server that has just connected is not taken
// into the set at once: it is handed to the backend, which catches it up on the world's thread
// and only then lets it join, so that it never sees a change before the state it refers to.
class KeloMultiClient : public Lirra::MultiClient {
public:
    explicit KeloMultiClient(ClientBackend* backend);
    // Stops the network thread handing over servers before the backend can go.
    ~KeloMultiClient() override;

    // Called on the network thread for each new server: hands it to the backend.
    bool addCommunicator(Lirra::Communicator* connection) override;
    // Takes a caught-up server into the set.
    bool join(Lirra::Communicator* connection);

private:
    ClientBackend* _backend;
};

}  // namespace Kelo
