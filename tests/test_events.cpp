// Command events: golden frames written from docs/protocol.md, round trips, the deliberately
// uneven copies, source data files, and frames that must be refused.
#include <algorithm>
#include <cmath>
#include <cstring>
#include <fstream>
#include <memory>

#include <Kelo/CreateEmitterEvent.h>
#include <Kelo/EmitterConnectionEvent.h>
#include <Kelo/EmitterHullEvent.h>
#include <Kelo/EmitterParamEvent.h>
#include <Kelo/SourceDataEvent.h>
#include <Kelo/SourceDurationEvent.h>
#include <Kelo/SourceParamEvent.h>
#include <Kelo/TransformEvent.h>
#include <Lirra/EventDecoder.h>

#include "support.h"

using KeloTest::LogCapture;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using Bytes = std::vector<uint8_t>;

namespace {

Bytes hex(std::string text) {
    text.erase(std::remove(text.begin(), text.end(), ' '), text.end());
    Bytes out;
    for (size_t at = 0; at < text.size(); at += 2)
        out.push_back(static_cast<uint8_t>(std::stoi(text.substr(at, 2), nullptr, 16)));
    return out;
}

Bytes frame(Lirra::Event& event) {
    event.setStamp(Kelo::CommandEvent::kSenderStamp);
    Bytes out;
    event.encode(out);
    return out;
}

// Decodes a whole frame (its length field included) to the given class.
template <typename T>
std::unique_ptr<T> decode(const Bytes& f) {
    std::unique_ptr<Lirra::Event> event(Lirra::Event::decode(f.data() + 4, f.size() - 4));
    T* typed = dynamic_cast<T*>(event.get());
    if (typed)
        event.release();
    return std::unique_ptr<T>(typed);
}

// The frame of event is the one given, and decoding it and encoding the result again gives the
// same bytes: every field is read back in the order it was written.
void expectFrame(Lirra::Event& event, const std::string& golden) {
    EXPECT_EQ(frame(event), hex(golden));
    const auto back = decode<Lirra::Event>(hex(golden));
    ASSERT_NE(back, nullptr) << golden;
    EXPECT_EQ(back->type(), event.type());
    EXPECT_EQ(frame(*back), hex(golden));
}

TEST(EventFrames, GoldenBytesOfEveryClass) {
    Kelo::CommandEvent play(Kelo::PlayEmitter, 7);
    expectFrame(play, "08000000 c800 320d 2400 0700");
    Kelo::TransformEvent t;
    t.setCommand(Kelo::SetEmitterTransform);
    t.setId(7);
    t.setPosition(osg::Vec3f(1, 2, 3));
    expectFrame(t,
                "24000000 c900 320d 2200 0700 0000803f 00000040 00004040"
                "00000000 00000000 00000000 0000803f");
    Kelo::CreateEmitterEvent c;
    c.setCommand(Kelo::CreateEmitter);
    c.setId(2);
    expectFrame(c, "0c000000 ca00 320d 1e00 0200 00000000");  // count 0, nothing more
    c.setLabels({"a", ""});
    expectFrame(c, "15000000 ca00 320d 1e00 0200 02000000 01000000 61 00000000");
    Kelo::EmitterConnectionEvent k;
    k.setSourceId(-2);
    expectFrame(k, "0a000000 cb00 320d 0000 0000 feff");
    Kelo::EmitterHullEvent h;
    h.setHull(1, 2, 0.5f, -1);
    expectFrame(h, "18000000 cc00 320d 0000 0000 0000803f 00000040 0000003f 000080bf");
    Kelo::EmitterParamEvent p;  // gain first, then the extra parameter, then spatialize
    p.setParam(false, 0.5f, 2.0f);
    expectFrame(p, "11000000 cd00 320d 0000 0000 00000040 0000003f 00");
    Kelo::SourceParamEvent sp;
    sp.setParam(true, 0.5f);
    expectFrame(sp, "0d000000 ce00 320d 0000 0000 0000003f 01");
    Kelo::SourceDataEvent d;
    d.setName("x");
    expectFrame(d, "15000000 cf00 320d 0000 0000 01000000 78 0000000000000000");
    const unsigned char bytes[3] = {9, 8, 7};
    d.setData(bytes, 3);
    expectFrame(d, "18000000 cf00 320d 0000 0000 01000000 78 0300000000000000 090807");
    Kelo::SourceDurationEvent du;
    du.setDuration(2.5f);
    expectFrame(du, "0c000000 d000 320d 0000 0000 00002040");
}

TEST(EventFrames, RoundTripsKeepEveryFieldBitForBit) {
    Kelo::TransformEvent t;
    t.setCommand(Kelo::SetListenerTransform);
    t.setId(Kelo::CommandEvent::wireId(70000));
    t.setPosition(osg::Vec3f(-0.0f, NAN, 1e-40f));
    t.setRotation(osg::Quaternion(0, 0, 2, 3));  // not normalised, stays so
    auto back = decode<Kelo::TransformEvent>(frame(t));
    ASSERT_TRUE(back);
    EXPECT_EQ(std::make_tuple(back->id(), back->stamp(), Kelo::CommandEvent::wireId(40000)),
              std::make_tuple(4464, 3378, -25536));
    EXPECT_EQ(std::memcmp(back->position().ptr(), t.position().ptr(), 12), 0);
    EXPECT_EQ(back->rotation(), osg::Quaternion(0, 0, 2, 3));
}

// Frames go behind what the buffer holds, which stays as it was, including a frame that outgrows
// the room opened for a typical one.
TEST(EventFrames, EncodeAppendsBehindWhatTheBufferHolds) {
    Kelo::CreateEmitterEvent c;
    c.setCommand(Kelo::CreateEmitter);
    c.setId(2);
    c.setLabels({std::string(100, 'a'), std::string(300, 'b')});
    Kelo::TransformEvent t;
    t.setPosition(osg::Vec3f(1, 2, 3));
    Bytes out(70000);
    for (size_t i = 0; i < out.size(); ++i)
        out[i] = static_cast<uint8_t>(i * 7);
    const Bytes before = out;
    for (Lirra::Event* e : {static_cast<Lirra::Event*>(&c), static_cast<Lirra::Event*>(&t)}) {
        e->setStamp(Kelo::CommandEvent::kSenderStamp);
        e->encode(out);
    }
    Bytes expected = before;
    for (const Bytes& f : {frame(c), frame(t)})
        expected.insert(expected.end(), f.begin(), f.end());
    EXPECT_EQ(out, expected);
    EXPECT_EQ(frame(c).size(), 4 + 8 + 4 + 4 + 100 + 4 + 300);
}

// Decoding into an object that already holds values, as a receiver reusing one would.
void refill(Lirra::Event& target, Lirra::Event& from) {
    const Bytes f = frame(from);
    ASSERT_TRUE(target.decodeInto(f.data() + 4, f.size() - 4));
}

// Some copy constructors drop the command and id, the labels or the data; assignment keeps them
// and copies the data rather than sharing it.
TEST(EventCopies, UnevenByDesign) {
    Kelo::TransformEvent t;
    t.setCommand(Kelo::SetEmitterTransform);
    t.setId(7);
    t.setPosition(osg::Vec3f(1, 2, 3));
    Kelo::TransformEvent copied(t), assigned;
    assigned = t;
    EXPECT_EQ(std::make_tuple(copied.command(), copied.id(), copied.position()),
              std::make_tuple(0, 0, t.position()));
    EXPECT_EQ(std::make_tuple(assigned.command(), assigned.id()),
              std::make_tuple(int(Kelo::SetEmitterTransform), 7));
    Kelo::EmitterHullEvent h;
    h.setCommand(Kelo::SetEmitterHull);
    h.setHull(1, 2, 3, 4);
    EXPECT_EQ(
        std::make_tuple(Kelo::EmitterHullEvent(h).command(), Kelo::EmitterHullEvent(h).minFront()),
        std::make_tuple(0, 4.0f));
    Kelo::SourceParamEvent sp;
    sp.setCommand(Kelo::SetSourceParam);
    sp.setParam(true, 3);
    Kelo::SourceParamEvent spCopy(sp);
    EXPECT_EQ(std::make_tuple(spCopy.command(), spCopy.loop()),
              std::make_tuple(int(Kelo::SetSourceParam), true));
    Kelo::CreateEmitterEvent c;
    c.setCommand(Kelo::CreateEmitter);
    c.setLabels({"a"});
    c.setStamp(5);
    Kelo::CreateEmitterEvent labelCopy(c);
    EXPECT_EQ(std::make_tuple(labelCopy.command(), labelCopy.stamp(), labelCopy.labels().size()),
              std::make_tuple(int(Kelo::CreateEmitter), 5, size_t(0)));

    Kelo::SourceDataEvent d;
    d.setName("big");
    const std::vector<unsigned char> bytes(1000, 0x5a);
    d.setData(bytes.data(), bytes.size());
    Kelo::SourceDataEvent dataCopy(d);
    EXPECT_EQ(
        std::make_tuple(dataCopy.name(), dataCopy.size(), dataCopy.data()),
        std::make_tuple(std::string("big"), size_t(0), static_cast<const unsigned char*>(nullptr)));
    dataCopy = d;
    ASSERT_EQ(dataCopy.size(), 1000u);
    EXPECT_NE(dataCopy.data(), d.data());
    EXPECT_EQ(std::memcmp(dataCopy.data(), bytes.data(), 1000), 0);
}

TEST(EventDecoding, ReceiversResizeAndFreeWhatTheyHeld) {
    Kelo::CreateEmitterEvent five, three;
    five.setLabels({"1", "2", "3", "4", "5"});
    three.setLabels({"a", "", "b"});
    refill(five, three);
    EXPECT_THAT(five.labels(), ElementsAre("a", "", "b"));

    Kelo::SourceDataEvent holding, empty;
    const unsigned char bytes[4] = {1, 2, 3, 4};
    holding.setData(bytes, 4);
    refill(holding, empty);
    EXPECT_EQ(holding.size(), 0u);
    EXPECT_EQ(holding.data(), nullptr);
}

// Every way a hostile peer can get a frame wrong is refused with a reason, never read past.
TEST(EventDecoding, MalformedFramesAreRefused) {
    struct Case {
        std::string body;  // after the length field
        const char* reason;
    };
    const Case cases[] = {
        {"c8", "shorter than its header"},
        {"3930 0000 2400 0700", "unknown event type 12345"},
        {"c800 0000 2400", "truncated field"},
        {"c800 0000 2400 0700 ff", "1 bytes left over"},
        {"cd00 0000 0000 0000 0000803f 00000000 02", "bool that is neither 0 nor 1"},
        {"ca00 0000 0000 0000 05000000", "more labels than the frame can hold"},
        {"ca00 0000 0000 0000 ffffffff", "more than 32 labels"},
        {"ca00 0000 0000 0000 21000000" + std::string(33 * 8, '0'), "more than 32 labels"},
        {"ca00 0000 0000 0000 01000000 ffffff7f 61", "label longer than 255 bytes"},
        {"ca00 0000 0000 0000 01000000 00010000" + std::string(2 * 256, '6'),
         "label longer than 255 bytes"},
        {"ca00 0000 0000 0000 01000000 10000000 61", "string longer than the frame"},
        {"cf00 0000 0000 0000 00000000 ffffffffffffff7f 00", "data block larger than the frame"},
    };
    LogCapture log(osg::LOG_WARNING);
    for (const Case& c : cases) {
        const Bytes body = hex(c.body);
        std::string error;
        EXPECT_EQ(Lirra::Event::decode(body.data(), body.size(), &error), nullptr) << c.body;
        EXPECT_THAT(error, HasSubstr(c.reason)) << c.body;
    }
    ASSERT_EQ(log.messages.size(), std::size(cases));
    EXPECT_EQ(log.texts()[1], "Refused event frame: unknown event type 12345\n");
    EXPECT_STREQ(log.messages[1].module, "Lirra");
}

// A receiver keeps an emitter's labels as long as the emitter lives: their number and length
// are capped (the frames just beyond are refused above), so that a frame cannot make it hold
// much more than the frame's own bytes. A sender cuts them to fit.
TEST(EventLimits, FittingLabelsAreCutToTheCapsWithoutSplittingACharacter) {
    Kelo::CreateEmitterEvent e;
    EXPECT_TRUE(e.setFittingLabels({"a", std::string(255, 'b')}));
    EXPECT_THAT(e.labels(), ElementsAre("a", std::string(255, 'b')));

    std::vector<std::string> many(40, std::string(300, 'z'));
    many[0] = std::string(254, 'x') + "\xc3\xa9";  // "é" would straddle byte 255
    EXPECT_FALSE(e.setFittingLabels(many));
    ASSERT_EQ(e.labels().size(), 32u);
    EXPECT_EQ(e.labels()[0], std::string(254, 'x'));
    EXPECT_EQ(e.labels()[31], std::string(255, 'z'));
    // Right at the caps: taken whole.
    const auto back = decode<Kelo::CreateEmitterEvent>(frame(e));
    ASSERT_NE(back, nullptr);
    EXPECT_EQ(back->labels(), e.labels());
}

// A byte stream in memory.
struct Stream : Lirra::Receiver {
    explicit Stream(Bytes b) : bytes(std::move(b)) {}
    bool readExact(uint8_t* out, size_t count) override {
        if (bytes.size() - at < count)
            return false;
        std::memcpy(out, bytes.data() + at, count);
        at += count;
        return true;
    }
    Bytes bytes;
    size_t at = 0;
};

TEST(EventDecoding, StreamsStopAtTheFrameCapTruncationOrGarbage) {
    Kelo::SourceDurationEvent d;
    d.setDuration(1.5f);
    const Bytes one = frame(d);
    Bytes two = one;
    two.insert(two.end(), one.begin(), one.end());
    Stream stream(two);
    Lirra::Event* event = nullptr;
    for (int i = 0; i < 2; ++i) {
        ASSERT_TRUE(Lirra::Event::receive(&stream, event));
        EXPECT_EQ(static_cast<Kelo::SourceDurationEvent*>(event)->duration(), 1.5f);
        delete event;
    }
    EXPECT_FALSE(Lirra::Event::receive(&stream, event));  // the stream has ended
    EXPECT_EQ(event, nullptr);

    LogCapture log(osg::LOG_WARNING);
    Stream huge(hex("ffffff7f c800"));  // announces 2 GiB
    EXPECT_FALSE(Lirra::Event::receive(&huge, event));
    EXPECT_EQ(huge.at, 4u);  // nothing read past the length
    EXPECT_THAT(log.texts(), ElementsAre("Refused event frame: 2147483647 bytes, more than the "
                                         "67108864 allowed\n"));
    Lirra::Event::setMaxFrameSize(8);
    Stream capped(frame(d));  // 12 bytes after the length
    EXPECT_FALSE(Lirra::Event::receive(&capped, event));
    Lirra::Event::setMaxFrameSize(64u << 20);
    Stream truncated(hex("0c000000 d000 320d"));
    EXPECT_FALSE(Lirra::Event::receive(&truncated, event));
}

// An event type registered for a while only, with no fields.
struct Passing : Lirra::Event {
    const Lirra::EventType* type() const override { return registered; }
    static Lirra::Event* create() { return new Passing; }
    static inline const Lirra::EventType* registered = nullptr;
};

// A receiver's decoder keeps one object per type: the second frame of a type lands in the
// object of the first, other types get their own, and the registry is asked again when it
// changes.
TEST(EventDecoding, TheDecoderReusesOneObjectPerType) {
    Lirra::EventDecoder decoder;
    std::string error;
    const auto decode = [&](const Bytes& f) {
        return decoder.decode(f.data() + 4, f.size() - 4, &error);
    };
    Kelo::TransformEvent t;
    t.setCommand(Kelo::SetEmitterTransform);
    t.setId(4);
    t.setPosition(osg::Vec3f(1, 2, 3));
    const Bytes first = frame(t);
    t.setId(5);
    t.setPosition(osg::Vec3f(4, 5, 6));
    const Bytes second = frame(t);
    Kelo::CommandEvent play(Kelo::PlayEmitter, 5);

    Lirra::Event* a = decode(first);
    ASSERT_NE(a, nullptr);
    auto* back = dynamic_cast<Kelo::TransformEvent*>(decode(second));
    ASSERT_EQ(back, a);
    EXPECT_EQ(std::make_pair(back->id(), back->position()),
              std::make_pair(int16_t(5), osg::Vec3f(4, 5, 6)));
    Lirra::Event* c = decode(frame(play));
    ASSERT_NE(c, nullptr);
    EXPECT_NE(c, a);
    EXPECT_EQ(c->type(), &Kelo::CommandEvent::_type);

    // A type that comes and goes: refused once it has left the registry.
    const Bytes odd = hex("04000000 3979 0000");  // type 31033, no fields
    LogCapture log(osg::LOG_WARNING);
    {
        Lirra::EventType passing("Passing", 31033, &Passing::create);
        Passing::registered = &passing;
        EXPECT_NE(decode(odd), nullptr);
        // An id taken already is refused, and leaving does not take the holder's entry along.
        Lirra::EventType clash("Clash", 201, &Kelo::CommandEvent::create);
        EXPECT_FALSE(clash.registered());
    }
    EXPECT_EQ(Lirra::EventType::find(201), &Kelo::TransformEvent::_type);
    EXPECT_EQ(decode(odd), nullptr);
    EXPECT_EQ(error, "unknown event type 31033");
    // A frame refused keeps the object for the next good one of its type.
    Bytes truncated = second;
    truncated.pop_back();
    truncated[0] = static_cast<uint8_t>(truncated.size() - 4);
    EXPECT_EQ(decode(truncated), nullptr);
    EXPECT_EQ(error, "TransformEvent: truncated field");
    EXPECT_EQ(decode(first), a);
    EXPECT_EQ(back->id(), 4);
    EXPECT_THAT(log.texts(),
                ElementsAre("There is already an event type with the id 201 (TransformEvent), "
                            "skip reg.\n",
                            "Refused event frame: unknown event type 31033\n",
                            "Refused event frame: TransformEvent: truncated field\n"));
}

TEST(DataFiles, LoadReadsWholeFilesStoreReplacesThemExactly) {
    Kelo::SourceDataEvent d;
    const unsigned char bytes[3] = {1, 0, 2};
    d.setData(bytes, 2);
    EXPECT_FALSE(d.loadData());  // no name: nothing, silently
    EXPECT_EQ(d.data(), nullptr);
    const std::string none = KeloTest::scratch("none");
    EXPECT_FALSE(d.storeData(none));  // nothing to store: no file either
    EXPECT_FALSE(std::ifstream(none).good());

    LogCapture log(osg::LOG_FATAL);
    d.setName(KeloTest::scratch("missing"));
    EXPECT_FALSE(d.loadData());
    const std::string empty = KeloTest::scratch("empty"), wav = KeloTest::scratch("44"),
                      target = KeloTest::scratch("stored");
    std::ofstream(empty).close();
    std::ofstream(wav) << std::string(44, 'w');
    std::ofstream(target) << "a much longer file than three bytes";
    d.setName(empty);
    EXPECT_FALSE(d.loadData());
    EXPECT_EQ(d.size(), 0u);
    d.setName(wav);
    ASSERT_TRUE(d.loadData());
    EXPECT_EQ(d.size(), 44u);
    EXPECT_EQ(d.data()[43], 'w');

    d.setData(bytes, 3);
    EXPECT_FALSE(d.storeData(""));
    ASSERT_TRUE(d.storeData(target));
    EXPECT_EQ(KeloTest::readFile(target), std::string("\1\0\2", 3));
    EXPECT_FALSE(d.storeData("/nonexistent-dir/x"));
    EXPECT_THAT(log.texts(),
                ElementsAre("Could not seek Kelo::Source data: >" + empty + "<\n",
                            "Read local Kelo::Source data: >" + wav + "< (44 byte)\n",
                            "Wrote local Kelo::Source data: >" + target + "< (3 bytes)\n",
                            "Could not write local Kelo::Source data: >/nonexistent-dir/x< (3 "
                            "bytes)\n"));
}

}  // namespace
