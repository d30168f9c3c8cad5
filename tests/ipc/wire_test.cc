// The message decoder on its own: what it accepts, what it refuses, and that
// descriptors of refused messages are closed.
#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "tests/ipc/test_protocol.h"
#include "tests/process/process_helpers.h"

using namespace sv;
using namespace sv::ipc;

namespace {

DecodeResult decode(const EncodedMessage& m, const ReplySpecLookup& replies = nullptr) {
    std::vector<UniqueFd> fds;
    for (const auto& f : m.fds) fds.emplace_back(fcntl(f.get(), F_DUPFD_CLOEXEC, 0));
    return decodeMessage(m.bytes, std::move(fds), ipctest::testInterface().get(), replies);
}

TEST(WireTest, CallsCarryTheReplyIdentifierWhereTheHandlerIs) {
    const MethodSpec* echo = ipctest::testInterface()->method("echo:withReply:");
    auto m = encodeCall(*echo, Arguments().add(Value{{"k", 1}}), 77);
    ASSERT_TRUE(m) << m.error().description();
    auto r = decode(*m);
    ASSERT_TRUE(r.message) << r.error;
    EXPECT_EQ(r.message->method, "echo:withReply:");
    EXPECT_EQ(r.message->replyId, 77u);
    EXPECT_EQ(r.message->arguments.at(0), (Value{{"k", 1}}));
    EXPECT_TRUE(r.message->arguments.at(1).is_null());  // the handler slot

    // The sender checks its own arguments too.
    EXPECT_FALSE(encodeCall(*echo, Arguments(), 1));
    EXPECT_FALSE(encodeCall(*ipctest::testInterface()->method("hello:"), Arguments().add("x"), 0));
}

TEST(WireTest, RepliesAreCheckedAgainstTheOutstandingCall) {
    std::vector<ArgSpec> signature{{ArgKind::Bytes}};
    auto good = encodeReply(5, signature, Arguments().add(bytesValue(Bytes{1, 2})));
    ASSERT_TRUE(good) << good.error().description();
    auto lookup = [&](uint64_t id) { return id == 5 ? &signature : nullptr; };
    EXPECT_TRUE(decode(*good, lookup).message);
    EXPECT_EQ(decode(*good, nullptr).error, "reply to no outstanding call");
    std::vector<ArgSpec> other{{ArgKind::String}};
    auto wrong = encodeReply(5, other, Arguments().add("text"));
    ASSERT_TRUE(wrong);
    EXPECT_FALSE(decode(*wrong, lookup).message);
}

TEST(WireTest, ObjectsAreCheckedAndRefusedDescriptorsClosed) {
    size_t before = sv::test::openDescriptorCount();
    // A file token must be read-only.
    int rw = open("/proc/self/exe", O_RDONLY | O_CLOEXEC);
    auto token = FileToken::adopt(rw);
    const MethodSpec* read = ipctest::testInterface()->method("readFile:withReply:");
    auto m = encodeCall(*read, Arguments().add(token), 1);
    ASSERT_TRUE(m) << m.error().description();
    auto ok = decode(*m);
    ASSERT_TRUE(ok.message) << ok.error;
    EXPECT_TRUE(ok.message->arguments.fileTokenAt(0));
    EXPECT_FALSE(ok.message->arguments.surfaceAt(0));  // asked as the wrong kind

    int pipeFds[2];
    ASSERT_EQ(pipe2(pipeFds, O_CLOEXEC), 0);
    close(pipeFds[0]);
    EncodedMessage bad;
    bad.bytes = m->bytes;
    bad.fds.emplace_back(pipeFds[1]);  // a pipe posing as a read-only file
    auto refused = decode(bad);
    EXPECT_FALSE(refused.message);
    EXPECT_EQ(refused.error, "file token is not a read-only file");

    // The same descriptor referenced as two kinds.
    Value a = Value::array(
        {Value{{"$object", "file"}, {"index", 0}}, Value{{"$object", "endpoint"}, {"index", 0}}});
    EncodedMessage twice;
    twice.bytes = encodeCbor(
        Value{{"v", 1}, {"t", 1}, {"m", "echo:withReply:"}, {"a", Value::array({a, 1})}, {"n", 1}});
    twice.fds.emplace_back(open("/proc/self/exe", O_RDONLY | O_CLOEXEC));
    EXPECT_FALSE(decode(twice).message);

    ok.message.reset();
    token = FileToken();
    m = EncodedMessage();
    bad.fds.clear();
    twice.fds.clear();
    // Earlier tests may still be closing sockets on the I/O thread: fewer is fine.
    EXPECT_LE(sv::test::openDescriptorCount(), before);
}

// Integer kinds admit exactly their range; what does not fit is refused by
// the receiver (and by a sender that uses this library), never narrowed.
TEST(WireTest, IntegerKindsHoldOnlyTheirRange) {
    using K = ArgKind;
    Interface widths("SVWidths",
                     {{"int32:uint32:int64:", {{K::Int32}, {K::UInt32}, {K::Int64}}, {}}});
    auto decodeArgs = [&](Value a, Value b, Value c) {
        Bytes bytes = encodeCbor(Value{
            {"v", 1}, {"t", 1}, {"m", "int32:uint32:int64:"}, {"a", Value::array({a, b, c})}});
        return decodeMessage(bytes, {}, &widths, nullptr);
    };
    auto ok = decodeArgs(INT32_MIN, UINT32_MAX, INT64_MIN);
    ASSERT_TRUE(ok.message) << ok.error;
    EXPECT_EQ(ok.message->arguments.integerAt<int32_t>(0), INT32_MIN);
    EXPECT_EQ(ok.message->arguments.integerAt<uint32_t>(1), UINT32_MAX);
    EXPECT_EQ(ok.message->arguments.integerAt<int64_t>(2), INT64_MIN);
    EXPECT_FALSE(ok.message->arguments.integerAt<int32_t>(1));  // asked narrower than it is

    EXPECT_EQ(decodeArgs(int64_t(INT32_MAX) + 1, 0, 0).error,
              "int32:uint32:int64:: argument 0 is not a int32");
    EXPECT_EQ(decodeArgs(0, -1, 0).error, "int32:uint32:int64:: argument 1 is not a uint32");
    EXPECT_EQ(decodeArgs(0, uint64_t(UINT32_MAX) + 1, 0).error,
              "int32:uint32:int64:: argument 1 is not a uint32");
    EXPECT_EQ(decodeArgs(0, 0, uint64_t(INT64_MAX) + 1).error,
              "int32:uint32:int64:: argument 2 is not a int64");
    EXPECT_FALSE(decodeArgs(0.5, 0, 0).message);

    // Outgoing values keep their type and width (a bool once went out as 1).
    EXPECT_TRUE(Arguments().add(true).values()[0].is_boolean());
    EXPECT_EQ(Arguments().add(uint64_t(UINT64_MAX)).values()[0], Value(UINT64_MAX));
    // The sender refuses what does not fit.
    auto wide = encodeCall(widths.methods()[0],
                           Arguments().add(int32_t(-1)).add(uint32_t(7)).add(int64_t(1) << 40), 0);
    ASSERT_TRUE(wide) << wide.error().description();
    auto back = decodeMessage(wide->bytes, {}, &widths, nullptr);
    ASSERT_TRUE(back.message) << back.error;
    EXPECT_EQ(back.message->arguments.integerAt<int64_t>(2), int64_t(1) << 40);
    auto narrowed =
        encodeCall(widths.methods()[0], Arguments().add(int64_t(1) << 40).add(0).add(0), 0);
    ASSERT_FALSE(narrowed);
    EXPECT_EQ(narrowed.error(), Error::make(kIPCErrorDomain, kErrorMessageRejected,
                                            "int32:uint32:int64:: argument 0 is not a int32"));
}

TEST(WireTest, EnvelopesThatLieAreRefused) {
    auto env = [](Value v) {
        EncodedMessage m;
        m.bytes = encodeCbor(v);
        return m;
    };
    EXPECT_FALSE(decode(env(Value::array({1, 2}))).message);
    EXPECT_FALSE(
        decode(env(Value{{"v", 2}, {"t", 1}, {"m", "ping"}, {"a", Value::array()}})).message);
    EXPECT_FALSE(decode(env(Value{{"v", 1}, {"t", 9}, {"a", Value::array()}})).message);
    EXPECT_FALSE(
        decode(env(Value{{"v", 1}, {"t", 1}, {"m", "ping"}, {"a", Value::array()}, {"n", 3}}))
            .message);
    EXPECT_FALSE(
        decode(env(Value{{"v", 1}, {"t", 1}, {"m", "ping"}, {"a", Value::array({1})}})).message);
    EXPECT_TRUE(
        decode(env(Value{{"v", 1}, {"t", 1}, {"m", "ping"}, {"a", Value::array()}})).message);
    EXPECT_EQ(
        decodeMessage(env(Value{{"v", 1}, {"t", 1}, {"m", "ping"}, {"a", Value::array()}}).bytes,
                      {}, nullptr, nullptr)
            .error,
        "call of ping but no interface is exported");
    Value deep = 1;
    for (int i = 0; i < 100; ++i) deep = Value::array({deep});
    EXPECT_FALSE(
        decode(env(Value{
                   {"v", 1}, {"t", 1}, {"m", "echo:withReply:"}, {"a", Value::array({deep, 1})}}))
            .message);
}

}  // namespace
