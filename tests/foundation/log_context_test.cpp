#include <gtest/gtest.h>

#include <string>
#include <thread>

#include <umlog/Ctx.h>

namespace {

TEST(LogContext, AttributesReplaceAndUnknownKeysStayAbsent) {
    umlog::Ctx& c = umlog::Ctx::getCtx();
    EXPECT_EQ(c.getAttribut("session"), "");
    c.addAttribut("session", "a");
    c.addAttribut("session", "b");
    EXPECT_EQ(c.getAttribut("session"), "b");
    EXPECT_EQ(c.getAttribut("other"), "");
    EXPECT_EQ(c.getProtocol(), 0);
    c.setProtocol(umlog::Ctx::Https);
    EXPECT_EQ(c.getProtocol(), umlog::Ctx::Https);
}

TEST(LogContext, EachThreadHasItsOwn) {
    umlog::Ctx::getCtx().setIP("10.9.9.9");
    umlog::Ctx::getCtx().setUsername("main-thread-user");

    std::string seenIp = "unset", seenUser = "unset", secondUser;
    std::thread other([&] {
        seenIp = umlog::Ctx::getCtx().getIp();
        seenUser = umlog::Ctx::getCtx().getUsername();
        umlog::Ctx::getCtx().setUsername("worker");
        secondUser = umlog::Ctx::getCtx().getUsername();
    });
    other.join();

    EXPECT_EQ(seenIp, "");
    EXPECT_EQ(seenUser, "");
    EXPECT_EQ(secondUser, "worker");
    // The worker's change never reached this thread.
    EXPECT_EQ(umlog::Ctx::getCtx().getUsername(), "main-thread-user");
    EXPECT_EQ(&umlog::Ctx::getCtx(), &umlog::ctx);
    umlog::Ctx::getCtx().setIP("");
    umlog::Ctx::getCtx().setUsername("");
}

}  // namespace
