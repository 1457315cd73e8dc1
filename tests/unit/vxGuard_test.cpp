// The guard macros, each in an operation of a small object: the result, the trail and the latch.
#include "vxGuard.h"

#include "vxTest.h"

#include <cerrno>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

namespace {

using veltrix::vxBase;
using vxGuardTest = vxtest::vxTest;

/** A member whose Close answers `closes`. */
class guardedPart : public vxBase
{
public:
    bool closes = true;

    guardedPart();
    LVX_NOT_COPYABLE(guardedPart);
    ~guardedPart() override;

    bool Close() override { return closes; }
};

LVX_DEFINE_LIFECYCLE(guardedPart)

/** One operation per macro, the outcome chosen by the argument. */
class guarded : public vxBase
{
public:
    guardedPart part;

    guarded();
    LVX_NOT_COPYABLE(guarded);
    ~guarded() override;

    bool Open() override
    {
        LVX_CALL_OPEN(part);
        return true;
    }

    bool Close() override
    {
        if (part.opened) {
            LVX_CALL_CLOSE(part);
        }
        return true;
    }

    bool guard()
    {
        LVX_GUARD();
        return true;
    }

    bool ensure(bool condition)
    {
        LVX_ENSURE(condition, "condition");
        return true;
    }

    bool check(bool result)
    {
        LVX_CHECK(result);
        return true;
    }

    bool checkInt(int status)
    {
        LVX_CHECK_INT(status);
        return true;
    }

    bool failErrno(int error)
    {
        errno = error;
        LVX_FAIL_ERRNO("call failed: ");
    }

    bool closePart()
    {
        LVX_CALL_CLOSE(part);
        return true;
    }
};

LVX_DEFINE_LIFECYCLE(guarded)

TEST_F(vxGuardTest, EachMacroGivesItsResultTrailAndLatch)
{
    const std::string refused = vxtest::kRefusal;
    const std::string checkFailed = "Boolean return value failed.";

    // clang-format off
    enum class start { open, closed, latched };
    const struct { const char* what; start from; std::function<bool(guarded&)> op; bool result;
                   std::vector<std::string> trail; } cases[] = {
        {"guard, open", start::open, [](guarded& g) { return g.guard(); }, true, {}},
        {"guard, closed", start::closed, [](guarded& g) { return g.guard(); }, false, {vxtest::kExpectedOpen}},
        {"guard, latched", start::latched, [](guarded& g) { return g.guard(); }, false, {refused}},
        {"ensure holds", start::open, [](guarded& g) { return g.ensure(true); }, true, {}},
        {"ensure violated", start::open, [](guarded& g) { return g.ensure(false); }, false, {"condition"}},
        {"ensure violated, latched", start::latched, [](guarded& g) { return g.ensure(false); }, false, {"condition"}},
        {"check true", start::open, [](guarded& g) { return g.check(true); }, true, {}},
        {"check false", start::open, [](guarded& g) { return g.check(false); }, false, {checkFailed}},
        {"check, latched", start::latched, [](guarded& g) { return g.check(true); }, false, {refused}},
        {"check int 0", start::open, [](guarded& g) { return g.checkInt(0); }, true, {}},
        {"check int 3", start::open, [](guarded& g) { return g.checkInt(3); }, false, {"Int return value failed. (3). "}},
        {"check int, latched", start::latched, [](guarded& g) { return g.checkInt(0); }, false, {refused}},
        {"errno", start::open, [](guarded& g) { return g.failErrno(ENOENT); }, false,
         {"call failed: " + std::string(std::strerror(ENOENT))}},
        {"close member", start::open, [](guarded& g) { return g.closePart() && !g.part.opened; }, true, {}},
        {"close member refused by its Close", start::open, [](guarded& g) { g.part.closes = false; return g.closePart(); },
         false, {checkFailed}},
        {"close member not open", start::open, [](guarded& g) { return g.closePart() && g.closePart(); }, false,
         {vxtest::kExpectedOpen, checkFailed}},
        {"close member, latched", start::latched, [](guarded& g) { return g.closePart() || !g.part.opened; }, false,
         {refused}},
    };

    // clang-format on
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        guarded object;
        if (c.from != start::closed) {
            ASSERT_TRUE(frame.openChild(object)) << vxtest::dumpTrail();
        }
        vxGlobal.stackTrace.errorLatch = c.from == start::latched;
        EXPECT_EQ(c.op(object), c.result);
        EXPECT_EQ(vxtest::trailMessages(), c.trail);
        // Every failure latches; a refusal leaves the latch as it found it.
        EXPECT_EQ(vxtest::latched(), !c.trail.empty());
        if (!c.trail.empty()) {
            // The newest event is recorded at the guarded operation's place.
            EXPECT_EQ(vxGlobal.stackTrace.events.back().file, "vxGuard_test.cpp");
        }
        vxBase::lvxClearLastError();
        object.part.closes = true;
        EXPECT_TRUE(!object.opened || vxBase::closeChild(object)) << vxtest::dumpTrail();
    }
}

} // namespace
