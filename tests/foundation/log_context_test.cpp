// The log context: one per thread, holding what log lines and exceptions report.
#include <gtest/gtest.h>

#include <string>
#include <thread>

#include <umlog/Ctx.h>

namespace {

TEST(LogContext, AttributesReplaceAndUnknownKeysReadEmpty) {
    umlog::Ctx& c = umlog::Ctx::getCtx();
    c.addAttribut("session", "a");
    c.addAttribut("session", "b");
    EXPECT_EQ(c.getAttribut("session"), "b");
    EXPECT_EQ(c.getAttribut("other"), "");
}

TEST(LogContext, EachThreadStartsWithItsOwnEmptyContext) {
    umlog::Ctx::getCtx().setIP("10.9.9.9");
    umlog::Ctx::getCtx().setUsername("main-thread-user");
    std::string seen = "unset";
    int seenProtocol = -1;
    std::thread([&] {
        umlog::Ctx& c = umlog::Ctx::getCtx();
        seen = c.getIp() + "|" + c.getUsername();
        seenProtocol = c.getProtocol();
        c.setUsername("worker");
    }).join();

    EXPECT_EQ(seen, "|");
    EXPECT_EQ(seenProtocol, 0) << "Unknown";
    EXPECT_EQ(umlog::Ctx::getCtx().getUsername(), "main-thread-user");
    EXPECT_EQ(&umlog::Ctx::getCtx(), &umlog::ctx);
    umlog::Ctx::getCtx().setIP("");
    umlog::Ctx::getCtx().setUsername("");
}

}  // namespace
