#include "Kelo/WebBackend.h"

#include <cerrno>
#include <charconv>
#include <chrono>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <iterator>
#include <optional>
#include <sstream>

#include <Lirra/IOException.h>
#include <Lirra/InetAddress.h>
#include <Lirra/PolledWebServer.h>
#include <Lirra/WebPageObject.h>
#include <Lirra/WebPageRedirection.h>
#include <Lirra/WebPageStatic.h>
#include <Parmel/Base.h>
#include <Tovan/SysInfo.h>

#include "Kelo/ClientBackend.h"
#include "Kelo/Emitter.h"
#include "Kelo/Exposition.h"
#include "Kelo/Log.h"
#include "Kelo/Server.h"
#include "Kelo/Source.h"
#include "Kelo/World.h"

namespace Kelo {

using Lirra::ProtocolHTTP;
using Lirra::WebServer;

BackendType WebBackend::_type("web", &WebBackend::createMethod);

Backend* WebBackend::createMethod(World& world, const char* params) {
    return new WebBackend(world, params);
}

namespace {

// Browsers are served the sheet with its terminating zero byte; they ignore it.
constexpr char styleText[] =
    "body { color: black; background-color: white; font-family: sans-serif }\n"
    "div.lHeader { font-style: italic; text-align: left }\n"
    "div.rHeader { font-style: italic; text-align: right }\n"
    "div.footer { font-style: italic }\n"
    "hr { }\n"
    "ul { list-style-type: square }\n"
    "h1 { color: #999999 }\n"
    "h2 { color: #999999 }\n"
    "table.header { background-color: #003399 }\n"
    "tr.header { color: white }\n"
    "td.header { color: white }\n"
    "a.header:link { color: white }\n"
    "a.header:visited { color: white }\n"
    "a.header:hover { color: white }\n"
    "a.header:active { color: white }\n"
    "th { color: white; background-color: #003399 }\n"
    "tr { text-align: justify; vertical-align: top }\n"
    "tr.dynamic { background-color: Blue }\n"
    "tr.private { background-color: PapayaWhip }\n"
    "tr.public  { background-color: White }\n";
static_assert(sizeof styleText == 739, "738 characters and the zero byte");

void putLE(std::string& out, uint32_t value, int bytes) {
    for (int i = 0; i < bytes; ++i)
        out += static_cast<char>((value >> (8 * i)) & 0xffu);
}

// A 16x16 icon, 32 bits per pixel: a loudspeaker dot sending two waves, white on the header
// bar's blue disc.
std::string makeIcon() {
    const int size = 16;
    const uint32_t pixelBytes = size * size * 4, maskBytes = size * 4;
    std::string ico;
    putLE(ico, 0, 2);  // icon directory: reserved, type 1 (icon), one image
    putLE(ico, 1, 2);
    putLE(ico, 1, 2);
    ico += static_cast<char>(size);  // directory entry: width, height, no palette, reserved
    ico += static_cast<char>(size);
    putLE(ico, 0, 2);
    putLE(ico, 1, 2);   // planes
    putLE(ico, 32, 2);  // bits per pixel
    putLE(ico, 40 + pixelBytes + maskBytes, 4);
    putLE(ico, 22, 4);  // the image follows the directory
    putLE(ico, 40, 4);  // bitmap header; the height counts the colour and the mask image
    putLE(ico, size, 4);
    putLE(ico, 2 * size, 4);
    putLE(ico, 1, 2);
    putLE(ico, 32, 2);
    putLE(ico, 0, 4);
    putLE(ico, pixelBytes + maskBytes, 4);
    for (int i = 0; i < 4; ++i)
        putLE(ico, 0, 4);
    for (int row = size - 1; row >= 0; --row)  // bottom-up
        for (int col = 0; col < size; ++col) {
            const double x = col + 0.5, y = row + 0.5;
            const double disc = std::hypot(x - 8, y - 8);
            const double dx = x - 5, dy = y - 8, r = std::hypot(dx, dy);
            const bool wave = dx > 0 && std::fabs(dy) < dx * 1.3 &&
                              ((r > 3.4 && r < 4.8) || (r > 6.0 && r < 7.4));
            const bool white = r < 1.9 || wave;
            // 0xAARRGGBB: little-endian, that is the B, G, R, A order of a bitmap.
            const uint32_t argb = disc > 7.9 ? 0u : white ? 0xffffffffu : 0xff003399u;
            putLE(ico, argb, 4);
        }
    ico.append(maskBytes, '\0');  // the alpha channel decides; the mask stays clear
    return ico;
}

void appendNumber(std::string& out, double value) {
    if (!std::isfinite(value)) {
        out += "null";
        return;
    }
    char text[32];
    const auto result = std::to_chars(text, text + sizeof text, static_cast<float>(value));
    out.append(text, result.ptr);
}

void appendString(std::string& out, const std::string& text) {
    static const char hex[] = "0123456789abcdef";
    out += '"';
    for (unsigned char c : text) {
        if (c == '"' || c == '\\') {
            out += '\\';
            out += static_cast<char>(c);
        } else if (c < 0x20 || c == '<' || c == '>' || c == '&') {  // safe inside HTML too
            out += "\\u00";
            out += hex[c >> 4];
            out += hex[c & 15];
        } else {
            out += static_cast<char>(c);
        }
    }
    out += '"';
}

void appendVec(std::string& out, const osg::Vec3f& v) {
    out += '[';
    appendNumber(out, v.x());
    out += ',';
    appendNumber(out, v.y());
    out += ',';
    appendNumber(out, v.z());
    out += ']';
}

void appendQuat(std::string& out, const osg::Quaternion& q) {
    out += '[';
    appendNumber(out, q.x());
    out += ',';
    appendNumber(out, q.y());
    out += ',';
    appendNumber(out, q.z());
    out += ',';
    appendNumber(out, q.w());
    out += ']';
}

const char* dataName(Source::DataType type) {
    switch (type) {
        case Source::URL_SD:
            return "url";
        case Source::PCM_SD:
            return "pcm";
        default:
            return "none";
    }
}

// The live view. Seen from above with the usual axes (x to the right, -z ahead), so ahead is
// up the screen. It builds everything with DOM calls: no text from the world is ever parsed as
// markup.
constexpr char sceneText[] = R"html(<!DOCTYPE html>
<html lang="en">
<head>
<meta charset="utf-8">
<title>Kelo Live Scene</title>
<link rel="stylesheet" type="text/css" href="/Style.css">
<link rel="icon" href="/favicon.ico">
<style>
  #view { width: 100%; height: 70vh; border: 1px solid #003399; background: #f7f8fc }
  #view text { font-family: sans-serif; fill: #222 }
  .grid { stroke: #dde; stroke-width: 1 }
  .axis { stroke: #bbc; stroke-width: 1.5 }
  .outer { fill: #003399; fill-opacity: 0.05; stroke: #003399; stroke-opacity: 0.5;
           stroke-dasharray: 4 3 }
  .inner { fill: #003399; fill-opacity: 0.10; stroke: #003399; stroke-opacity: 0.7 }
  .facing { stroke: #333; stroke-width: 2 }
  .listener { fill: #cc3300; stroke: #fff; stroke-width: 1.5 }
  .mark { stroke: #fff; stroke-width: 1.5 }
  .play { fill: #229922 } .pause { fill: #dd8800 } .stop { fill: #888 }
  .none, .unknown { fill: #6677aa }
  #status { font-style: italic }
</style>
</head>
<body>
<table class="header" cellspacing="0" cellpadding="3" border="0" width="100%">
  <tr class="header"><td class="header"><div class="lHeader">Kelo Live Scene</div></td>
  <td class="header"><div class="rHeader"><a class="header" href="/index.html">Index</a></div>
  </td></tr></table>
<h1>Live Scene</h1>
<p id="status">Waiting for the scene&hellip;</p>
<svg id="view" xmlns="http://www.w3.org/2000/svg"></svg>
<h2>Emitters</h2>
<table border="1" id="emitters">
  <thead><tr><th>Emitter</th><th>Position</th><th>Range ahead</th><th>Range behind</th>
  <th>Gain</th><th>State</th><th>Labels</th><th>Source</th></tr></thead>
  <tbody></tbody>
</table>
<script>
"use strict";
const NS = "http://www.w3.org/2000/svg";
const STATES = ["none", "play", "pause", "stop"];
const view = document.getElementById("view");
const rows = document.querySelector("#emitters tbody");
const status = document.getElementById("status");

function stateName(s) { return STATES[s] || "unknown"; }
function el(name, attrs, parent) {
  const e = document.createElementNS(NS, name);
  for (const k in attrs) e.setAttribute(k, attrs[k]);
  if (parent) parent.appendChild(e);
  return e;
}
function fmt(v) { return v === null ? "?" : Number(v).toFixed(2); }
// Where -z points after rotating by q, projected onto the ground.
function facing(q) {
  const [x, y, z, w] = q.map(v => v || 0);
  const fx = -2 * (x * z + w * y), fz = -(1 - 2 * (x * x + y * y));
  const n = Math.hypot(fx, fz);
  return n > 1e-6 ? [fx / n, fz / n] : [0, -1];
}
// A hull range as a circle through the point front ahead and the point back behind.
function range(g, cls, p, dir, front, back, k) {
  const r = (front + back) / 2;
  if (!(r > 0)) return;
  const off = (front - back) / 2;
  el("circle", {class: cls, cx: (p[0] + dir[0] * off) * k, cy: (p[2] + dir[1] * off) * k,
                r: r * k}, g);
}
function draw(scene) {
  const emitters = scene.emitters, lp = scene.listener.position;
  let x0 = lp[0] - 1, x1 = lp[0] + 1, z0 = lp[2] - 1, z1 = lp[2] + 1;
  for (const e of emitters) {
    const reach = Math.max(e.hull.maxFront || 0, e.hull.maxBack || 0, 0.5);
    x0 = Math.min(x0, e.position[0] - reach); x1 = Math.max(x1, e.position[0] + reach);
    z0 = Math.min(z0, e.position[2] - reach); z1 = Math.max(z1, e.position[2] + reach);
  }
  // Pixels per unit, so that strokes and text keep their size whatever the scene's extent.
  const box = view.getBoundingClientRect();
  const k = Math.min((box.width || 800) / (x1 - x0), (box.height || 500) / (z1 - z0)) * 0.9;
  const cx = (x0 + x1) / 2 * k, cz = (z0 + z1) / 2 * k;
  const w = (box.width || 800), h = (box.height || 500);
  view.setAttribute("viewBox", `${cx - w / 2} ${cz - h / 2} ${w} ${h}`);
  view.replaceChildren();
  const grid = el("g", {}, view);
  const step = Math.pow(10, Math.floor(Math.log10(Math.max(x1 - x0, z1 - z0) / 5)));
  for (let gx = Math.floor(x0 / step) * step; gx <= x1; gx += step)
    el("line", {class: Math.abs(gx) < step / 2 ? "axis" : "grid", x1: gx * k, x2: gx * k,
                y1: z0 * k, y2: z1 * k}, grid);
  for (let gz = Math.floor(z0 / step) * step; gz <= z1; gz += step)
    el("line", {class: Math.abs(gz) < step / 2 ? "axis" : "grid", x1: x0 * k, x2: x1 * k,
                y1: gz * k, y2: gz * k}, grid);
  rows.replaceChildren();
  for (const e of emitters) {
    const p = e.position, dir = facing(e.rotation), state = stateName(e.state);
    const g = el("g", {class: "emitter", id: "emitter-" + e.id, "data-state": state,
                       "data-source": e.source === null ? "" : e.source}, view);
    range(g, "outer", p, dir, e.hull.maxFront, e.hull.maxBack, k);
    range(g, "inner", p, dir, e.hull.minFront, e.hull.minBack, k);
    el("line", {class: "facing", x1: p[0] * k, y1: p[2] * k, x2: p[0] * k + dir[0] * 18,
                y2: p[2] * k + dir[1] * 18}, g);
    const mark = el("circle", {class: "mark " + state, cx: p[0] * k, cy: p[2] * k, r: 7,
                               "fill-opacity": Math.min(1, 0.3 + 0.7 * Math.max(0, e.gain))}, g);
    el("title", {}, mark).textContent = `Emitter ${e.id}: ${state}, gain ${fmt(e.gain)}`;
    const label = el("text", {x: p[0] * k + 10, y: p[2] * k - 10, "font-size": 12}, g);
    label.textContent = `#${e.id}` + (e.labels.length ? " " + e.labels.join(", ") : "") +
                        (e.source === null ? "" : ` \u2190 source ${e.source}`);
    const tr = rows.insertRow();
    for (const text of [e.id, `${fmt(p[0])}, ${fmt(p[1])}, ${fmt(p[2])}`,
                        `${fmt(e.hull.minFront)} \u2013 ${fmt(e.hull.maxFront)}`,
                        `${fmt(e.hull.minBack)} \u2013 ${fmt(e.hull.maxBack)}`, fmt(e.gain),
                        state, e.labels.join(", "), e.source === null ? "none" : e.source])
      tr.insertCell().textContent = text;
  }
  const ld = facing(scene.listener.rotation), lx = lp[0] * k, lz = lp[2] * k;
  const side = [-ld[1], ld[0]];
  el("polygon", {class: "listener", id: "listener", points: [
      [lx + ld[0] * 14, lz + ld[1] * 14], [lx - ld[0] * 8 + side[0] * 8, lz - ld[1] * 8 +
      side[1] * 8], [lx - ld[0] * 8 - side[0] * 8, lz - ld[1] * 8 - side[1] * 8]]
      .map(q => q.join(",")).join(" ")}, view);
  status.textContent = `${emitters.length} emitters, ${scene.sources.length} sources, ` +
      `${scene.backends} backends; listener at ${fmt(lp[0])}, ${fmt(lp[1])}, ${fmt(lp[2])}` +
      (scene.enabled ? "" : " (muted)") + `; updated ${new Date().toLocaleTimeString()}`;
}
async function refresh() {
  try {
    const reply = await fetch("/scene.json", {cache: "no-store"});
    if (!reply.ok) throw new Error(reply.status + " " + reply.statusText);
    draw(await reply.json());
  } catch (error) {
    status.textContent = "Scene unavailable: " + error.message;
  }
  setTimeout(refresh, 250);
}
refresh();
</script>
</body>
</html>
)html";

// A number in [low, high] written in full; anything else is nothing.
std::optional<double> numberIn(const char* text, double low, double high) {
    if (!text || !*text)
        return std::nullopt;
    char* end = nullptr;
    errno = 0;
    const double value = std::strtod(text, &end);
    if (errno != 0 || *end != '\0' || !std::isfinite(value) || value < low || value > high)
        return std::nullopt;
    return value;
}

}  // namespace

void WebBackend::applyLimits(Lirra::PolledWebServer& server) const {
    struct Limit {
        const char* key;
        double low, high, fallback;
        bool whole;
    };
    const double msPerSecond = 1000.0;
    const Limit limits[] = {
        {"clients", 1, 4096, static_cast<double>(server.maxConnections()), true},
        {"clientsPerAddress", 1, 4096, static_cast<double>(server.maxConnectionsPerAddress()),
         true},
        {"headerTimeout", 0.1, 3600, server.headerTimeout().count() / msPerSecond, false},
        {"idleTimeout", 0.1, 3600, server.idleTimeout().count() / msPerSecond, false},
        {"timeout", 0.1, 3600, server.timeout().count() / msPerSecond, false},
    };
    double values[std::size(limits)];
    for (std::size_t i = 0; i < std::size(limits); ++i) {
        const Limit& limit = limits[i];
        const char* text = params().getParam(limit.key, nullptr);
        std::optional<double> value = numberIn(text, limit.low, limit.high);
        if (value && limit.whole && *value != std::floor(*value))
            value.reset();
        values[i] = value.value_or(limit.fallback);
        if (text && !value)
            KELO_LOG(osg::LOG_WARNING, "Web backend: %s=%s is not %s from %g to %g; using %g\n",
                     limit.key, text, limit.whole ? "a whole number" : "a number", limit.low,
                     limit.high, limit.fallback);
    }
    const auto ms = [](double seconds) {
        return std::chrono::milliseconds(std::llround(seconds * 1000));
    };
    server.setMaxConnections(static_cast<std::size_t>(values[0]));
    server.setMaxConnectionsPerAddress(static_cast<std::size_t>(values[1]));
    server.setHeaderTimeout(ms(values[2]));
    server.setIdleTimeout(ms(values[3]));
    server.setTimeout(ms(values[4]));
}

const char* WebBackend::buildTime() {
    return __DATE__ " " __TIME__;
}

const char* WebBackend::notice() {
    return "&copy; libKelo &middot; <A CLASS=\"header\" HREF=\"/scene.html\">Live scene</A>";
}

const std::string& WebBackend::styleSheet() {
    static const std::string text(styleText, sizeof styleText);
    return text;
}

const std::string& WebBackend::icon() {
    static const std::string bytes = makeIcon();
    return bytes;
}

const std::string& WebBackend::scenePage() {
    static const std::string text(sceneText);
    return text;
}

WebBackend::WebBackend(World& world, const char* params)
    : Backend(world, params), _webServer(std::make_unique<Lirra::PolledWebServer>()) {
    Lirra::PolledWebServer& server = *_webServer;
    server.addPage("/", Lirra::WebPageRedirection("/index.html"));
    server.addPage("/index.html",
                   Lirra::WebPageObject<WebBackend>(this, &WebBackend::createIndexPage));
    server.addPage("/log.html",
                   Lirra::WebPageObject<WebServer>(&server, &WebServer::createLogPage));
    server.addPage("/Style.css", Lirra::WebPageStatic("text/css", styleSheet()));
    server.addPage("/favicon.ico", Lirra::WebPageStatic("image/x-icon", icon()));
    server.addPage("/scene.html", Lirra::WebPageStatic("text/html; charset=utf-8", scenePage()));
    server.addPage("/scene.json",
                   Lirra::WebPageObject<WebBackend>(this, &WebBackend::createScenePage));
    server.addPage("/metrics",
                   Lirra::WebPageObject<WebBackend>(this, &WebBackend::createMetricsPage));
    server.setName("Kelo");
    server.setLogSize(0);

    applyLimits(server);
    const std::string host = this->params().getParam("host", "");
    const int port = Parmel::Base::string2Value(this->params().getParam("port", "0"), -1);
    try {
        server.open(host, port);
    } catch (const Lirra::IOException& error) {
        KELO_LOG(osg::LOG_FATAL, "Could not create web server; %s:%d\n", host.c_str(), port);
        KELO_LOG(osg::LOG_NOTICE, "%s\n", error.what());
        return;
    }
    // The host name, as people know the machine; the address too when the server listens on
    // one address only, since the name may lead elsewhere (to 127.0.1.1, say, or another host).
    const Lirra::SocketAddress address = server.socketAddress();
    const std::string bound =
        address.isWildcard() ? "" : " (listening on " + address.getHostAddress() + ")";
    KELO_LOG(osg::LOG_LOG, "Web server open ok: http://%s:%u%s\n",
             Lirra::InetAddress::getLocalHostName().c_str(),
             static_cast<unsigned>(address.getServicePort()), bound.c_str());
}

WebBackend::WebBackend(const WebBackend& other) : Backend(other) {}

WebBackend::~WebBackend() {
    if (_webServer)
        _webServer->close();
}

bool WebBackend::update() {
    if (_webServer)
        _webServer->update();
    return true;
}

bool WebBackend::createIndexPage(const ProtocolHTTP::Request&, ProtocolHTTP::Reply& reply) {
    const Tovan::SysInfo& info = Tovan::SysInfo::the();
    reply.setStatus(200);
    reply.setHeader("Content-Type", "text/html");
    reply.setBody(
        "<HTML>\n  <HEAD>\n    <TITLE>Kelo Web Interface</TITLE>\n    <LINK REL=\"stylesheet\" "
        "TYPE=\"text/css\" HREF=\"/Style.css\">    <LINK REL=\"ICON\" HREF=\"/favicon.ico\">\n"
        "    <LINK REL=\"SHORTCUT ICON\" HREF=\"/favicon.ico\"\n>  </HEAD>\n  <BODY>\n"
        "    <TABLE CLASS=\"header\" CELLSPACING=0 CELLPADDING=3 BORDER=0 WIDTH=100%>"
        "<TR CLASS=\"header\">\n    <TD CLASS=\"header\"><DIV CLASS=lHeader>Kelo Web Interface"
        "</DIV></TD>\n    <TD CLASS=\"header\"><DIV CLASS=rHeader>" +
        std::string(notice()) +
        "</DIV></TD>\n    </TR></TABLE>\n    <H1>Kelo Web Interface</H1>\n"
        "    <P><TABLE CELLSPACING=0 CELLPADDING=0 BORDER=0><TR><TD>User:</TD><TD>" +
        WebServer::escapeHtml(info.user()) + "<TD></TR>\n    <TR><TD>Host:</TD><TD>" +
        WebServer::escapeHtml(info.host()) + "</TD></TR>\n    <TR><TD>System:</TD><TD>" +
        WebServer::escapeHtml(info.system()) +
        "</TD></TR>\n    <TR><TD>Kelo Version:&nbsp;</TD><TD>" + buildTime() +
        "</TD></TR></TABLE></P>\n    <TABLE border=\"1\">\n"
        "    <TR><TH>Object Type</TH><TH>Count</TH><TH>Page</TH></TR>\n");
    std::ostringstream rows;
    rows << "    <TR><TD>Backend</TD><TD>" << static_cast<uint32_t>(world().backends().size())
         << "</TD><TD><A HREF=\"/Backends\">All</A></TD></TR>\n"
         << "    <TR><TD>Sources</TD><TD>" << static_cast<uint64_t>(world().sources().size())
         << "</TD><TD><A HREF=\"/Sources\">All</A></TD></TR>\n"
         << "    <TR><TD>Emitter</TD><TD>" << static_cast<uint64_t>(world().emitters().size())
         << "</TD><TD><A HREF=\"/Emitter\">All</A></TD></TR>\n";
    reply.body() += rows.str();
    reply.body() += "    </TABLE>\n";
    reply.body() +=
        "    <TABLE CLASS=\"header\" CELLSPACING=0 CELLPADDING=3 BORDER=0 WIDTH=100%>"
        "<TR CLASS=\"header\">\n    <TD CLASS=\"header\"><DIV CLASS=footer>&nbsp;</DIV></TD>\n"
        "    </TR></TABLE>\n  </BODY>\n</HTML>\n";
    return true;
}

bool WebBackend::createScenePage(const ProtocolHTTP::Request&, ProtocolHTTP::Reply& reply) {
    const World& w = world();
    std::string out = "{\"backends\":" + std::to_string(w.backends().size()) +
                      ",\"enabled\":" + (w.enabled() ? "true" : "false") +
                      ",\"spatialize\":" + (w.spatialize() ? "true" : "false") +
                      ",\"listener\":{\"position\":";
    appendVec(out, w.listenerPosition());
    out += ",\"rotation\":";
    appendQuat(out, w.listenerRotation());
    out += "},\"sources\":[";
    const char* comma = "";
    for (const auto& [id, source] : w.sources()) {
        out += comma;
        comma = ",";
        out += "{\"id\":" + std::to_string(id) +
               ",\"state\":" + std::to_string(static_cast<int>(source->state())) + ",\"data\":\"" +
               dataName(source->dataType()) + "\"";
        if (source->dataType() == Source::URL_SD && source->url()) {
            out += ",\"url\":";
            appendString(out, source->url()->displayString());
        } else if (source->dataType() == Source::PCM_SD) {
            out += ",\"frequency\":" + std::to_string(source->frequency()) +
                   ",\"bits\":" + std::to_string(source->bits()) +
                   ",\"channels\":" + std::to_string(source->channels()) +
                   ",\"bytes\":" + std::to_string(source->data().size());
        }
        out += ",\"loop\":";
        out += source->loop() ? "true" : "false";
        out += ",\"pitch\":";
        appendNumber(out, source->pitch());
        out += ",\"duration\":";
        appendNumber(out, source->duration());
        out += '}';
    }
    out += "],\"emitters\":[";
    comma = "";
    for (const auto& [id, emitter] : w.emitters()) {
        out += comma;
        comma = ",";
        out += "{\"id\":" + std::to_string(id) + ",\"position\":";
        appendVec(out, emitter->position());
        out += ",\"rotation\":";
        appendQuat(out, emitter->rotation());
        out += ",\"hull\":{\"maxBack\":";
        appendNumber(out, emitter->maxBack());
        out += ",\"maxFront\":";
        appendNumber(out, emitter->maxFront());
        out += ",\"minBack\":";
        appendNumber(out, emitter->minBack());
        out += ",\"minFront\":";
        appendNumber(out, emitter->minFront());
        out += "},\"gain\":";
        appendNumber(out, emitter->gain());
        out += ",\"spatialize\":";
        out += emitter->spatialize() ? "true" : "false";
        out += ",\"state\":" + std::to_string(static_cast<int>(emitter->state())) + ",\"labels\":[";
        const char* labelComma = "";
        for (const std::string& label : emitter->labels()) {
            out += labelComma;
            labelComma = ",";
            appendString(out, label);
        }
        out += "],\"source\":";
        out += emitter->source() ? std::to_string(emitter->source()->id()) : "null";
        out += '}';
    }
    out += "]}\n";
    reply.setStatus(200);
    reply.setHeader("Content-Type", "application/json");
    reply.setHeader("Cache-Control", "no-store");
    reply.setBody(std::move(out));
    return true;
}

bool WebBackend::createMetricsPage(const ProtocolHTTP::Request&, ProtocolHTTP::Reply& reply) {
    reply.setStatus(200);
    reply.setHeader("Content-Type", Exposition::kContentType);
    reply.setHeader("Cache-Control", "no-store");
    reply.setBody(metrics());
    return true;
}

namespace {

// One family of a client backend's series, one sample for each client backend.
struct ClientSeries {
    const char* name;
    const char* type;
    const char* help;
    uint64_t (*value)(const ClientBackend&);
};

const ClientSeries clientSeries[] = {
    {"kelo_client_servers", "gauge", "Servers connected and caught up, receiving live changes.",
     [](const ClientBackend& c) -> uint64_t { return c.servers(); }},
    {"kelo_client_servers_joining", "gauge",
     "Servers connected and waiting for their catch-up in the next update.",
     [](const ClientBackend& c) -> uint64_t { return c.joiningServers(); }},
    {"kelo_client_events_sent_total", "counter",
     "Command events sent, once for each server that was given them, catch-ups included.",
     [](const ClientBackend& c) -> uint64_t { return c.eventsSent(); }},
    {"kelo_client_sent_bytes_total", "counter",
     "Bytes of the command events sent, once for each server that was given them.",
     [](const ClientBackend& c) -> uint64_t { return c.bytesSent(); }},
    {"kelo_client_queued_bytes", "gauge", "Bytes waiting to be sent to the servers.",
     [](const ClientBackend& c) -> uint64_t { return c.bytesQueued(); }},
    {"kelo_client_servers_dropped_total", "counter",
     "Servers dropped for falling behind: more than sendLimit bytes waited for them.",
     [](const ClientBackend& c) -> uint64_t { return c.serversDropped(); }},
    {"kelo_client_servers_lost_total", "counter",
     "Server connections lost, whatever the cause, the dropped ones included.",
     [](const ClientBackend& c) -> uint64_t { return c.serversLost(); }},
    {"kelo_client_catchups_total", "counter",
     "Catch-ups sent: the whole world, to a server that connected.",
     [](const ClientBackend& c) -> uint64_t { return c.catchUps(); }},
};

}  // namespace

std::string WebBackend::metrics() const {
    const World& w = world();
    const Exposition::Labels none;
    Exposition out;
    out.family("kelo_sources", "gauge", "Sources in the world.");
    out.sample("kelo_sources", none, static_cast<uint64_t>(w.sources().size()));
    out.family("kelo_emitters", "gauge", "Emitters in the world.");
    out.sample("kelo_emitters", none, static_cast<uint64_t>(w.emitters().size()));
    out.family("kelo_backends", "gauge", "Backends of the world.");
    out.sample("kelo_backends", none, static_cast<uint64_t>(w.backends().size()));
    out.family("kelo_update_duration_seconds", "histogram",
               "Time one World::update() took: the frame's work of every backend.");
    out.histogram("kelo_update_duration_seconds", none, w.updateTimes().snapshot());

    // Labelled by their order among the world's client backends, from 0, even when there is
    // one: a second one added later does not rename the first one's series.
    std::vector<const ClientBackend*> clients;
    for (const Backend* backend : w.backends())
        if (const auto* client = dynamic_cast<const ClientBackend*>(backend))
            clients.push_back(client);
    for (const ClientSeries& series : clientSeries) {
        if (clients.empty())
            break;
        out.family(series.name, series.type, series.help);
        for (size_t i = 0; i < clients.size(); ++i)
            out.sample(series.name, {{"backend", std::to_string(i)}}, series.value(*clients[i]));
    }

    const auto* server = dynamic_cast<const Server*>(&w);
    if (!server)
        return out.text();
    out.family("kelo_server_clients", "gauge", "Clients connected.");
    out.sample("kelo_server_clients", none, static_cast<uint64_t>(server->clients()));
    out.family("kelo_server_events_received_total", "counter",
               "Command events received, by command.");
    for (int16_t command = 1; command <= StopEmitter; ++command)
        if (const char* name = CommandEvent::commandName(command))
            out.sample("kelo_server_events_received_total", {{"command", name}},
                       server->receivedEvents(command));
    out.sample("kelo_server_events_received_total", {{"command", "unknown"}},
               server->receivedEvents(NoCommand));
    out.family("kelo_server_refused_total", "counter",
               "Frames refused and clients dropped or turned away, by reason.");
    for (const auto& [reason, count] : server->refusals())
        out.sample("kelo_server_refused_total", {{"reason", reason}}, count);
    out.family("kelo_server_durations_reported_total", "counter",
               "Playing times of sounds reported to the clients.");
    out.sample("kelo_server_durations_reported_total", none, server->durationsReported());
    out.family("kelo_server_receive_held_bytes", "gauge",
               "Received bytes not yet read, over all clients: what counts against the receive "
               "budget.");
    out.sample("kelo_server_receive_held_bytes", none,
               static_cast<uint64_t>(server->receiveHeld()));
    return out.text();
}

}  // namespace Kelo
