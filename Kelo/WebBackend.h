#pragma once

#include <memory>
#include <string>

#include <Lirra/ProtocolHTTP.h>

#include "Kelo/Backend.h"
#include "Kelo/BackendType.h"

namespace Lirra {
class PolledWebServer;
}

namespace Kelo {

// "web": serves status pages about its world from a small HTTP server polled in update(), so
// every page is made on the thread that updates the world, at its frame rate:
//   /            redirects to /index.html
//   /index.html  user, host, system, build time and the world's counts
//   /log.html    the web server's request log
//   /Style.css   the style sheet, /favicon.ico the icon
//   /scene.html  a live top-down view of the listener and the emitters, fed by /scene.json
//   /metrics     counts and timings for Prometheus: the world's, and those of its client
//                backends and of the server when the world is one
// Parameters: "host" (address to listen on; loopback when absent), "port" (the web server's
// fixed default when absent; a port of the system's choosing when that one is taken), and the
// web server's limits: "clients" and "clientsPerAddress" (connections held at once, in all and
// from one address), "headerTimeout", "idleTimeout" and "timeout" (seconds for a request's
// header, for a kept-alive connection's wait for the next request, and for a whole request and
// a reply). A bad limit is logged and its default kept.
class WebBackend : public Backend {
public:
    WebBackend(World& world, const char* params);
    // The copy serves nothing: it has no web server of its own.
    WebBackend(const WebBackend& other);
    ~WebBackend() override;

    void resetBackend() override {}
    void setEnabled() override {}
    void setListenerTransform() override {}
    void createSource(Source&) override {}
    void destroySource(Source&) override {}
    void setSourceData(Source&) override {}
    void setSourceParam(Source&) override {}
    void setSourceState(Source&) override {}
    void createEmitter(Emitter&) override {}
    void destroyEmitter(Emitter&) override {}
    void setEmitterTransform(Emitter&) override {}
    void setEmitterHull(Emitter&) override {}
    void setEmitterParam(Emitter&) override {}
    void setEmitterConnection(Emitter&) override {}
    void setEmitterState(Emitter&) override {}
    // Lets the web server answer what is waiting; always true.
    bool update() override;
    const BackendType* type() const override { return &_type; }

    bool createIndexPage(const Lirra::ProtocolHTTP::Request& request,
                         Lirra::ProtocolHTTP::Reply& reply);
    // The world as JSON for the live view: listener, sources and emitters with everything the
    // view draws.
    bool createScenePage(const Lirra::ProtocolHTTP::Request& request,
                         Lirra::ProtocolHTTP::Reply& reply);
    // The metrics in the Prometheus text format (0.0.4).
    bool createMetricsPage(const Lirra::ProtocolHTTP::Request& request,
                           Lirra::ProtocolHTTP::Reply& reply);
    // The metrics page's text.
    std::string metrics() const;

    // Null for a copy; closed when it could not be opened.
    Lirra::PolledWebServer* webServer() const { return _webServer.get(); }

    // When the library was built, as the compiler writes it ("Mar 14 2021 09:26:53").
    static const char* buildTime();
    // The right-hand text of the index page's header bar.
    static const char* notice();
    static const std::string& styleSheet();
    static const std::string& icon();
    static const std::string& scenePage();

    static Backend* createMethod(World& world, const char* params);
    static BackendType _type;

private:
    void applyLimits(Lirra::PolledWebServer& server) const;

    std::unique_ptr<Lirra::PolledWebServer> _webServer;
};

}  // namespace Kelo
