#include "mivra/media/ListenerMap.h"

#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <string>
#include <thread>

#include "tests/support/FaultInjection.h"

namespace Mivra::Test {
namespace {

using Callback = std::function<void(std::string&)>;
using Map = Media::ListenerMap<Callback>;

std::string called(Map& map) {
    std::string calls;
    map.Dispatch(std::ref(calls));
    return calls;
}

TEST(ListenerMapTest, CallsInIdOrderAndLetsListenersComeAndGoInside) {
    Map map;
    EXPECT_TRUE(map.Empty());
    map.Add(1, [&map](std::string& calls) {
        calls += 'a';
        map.Remove(1);
        map.Remove(2);
        map.Add(3, [](std::string& more) { more += 'c'; });
    });
    map.Add(2, [](std::string& calls) { calls += 'b'; });
    EXPECT_EQ(called(map), "ab");  // the dispatch goes on with the listeners that it began with
    EXPECT_EQ(called(map), "c");
    map.Remove(7);
    map.Remove(3);
    EXPECT_TRUE(map.Empty());
}

TEST(ListenerMapTest, FreesAListenerOnceNoDispatchIsInFlight) {
    Map map;
    const auto captured = std::make_shared<int>(0);
    map.Add(1, [&map, &captured, kept = captured](std::string&) {
        map.Remove(1);
        map.Reclaim();
        EXPECT_EQ(captured.use_count(), 2);
    });
    called(map);
    EXPECT_EQ(captured.use_count(), 1);

    // An exception out of a listener counts the dispatch out as well.
    map.Add(2, [kept = captured](std::string&) {});
    map.Add(3, nullptr);
    EXPECT_THROW(called(map), std::bad_function_call);
    map.Remove(3);
    map.Remove(2);
    map.Reclaim();
    EXPECT_EQ(captured.use_count(), 1);
}

TEST(ListenerMapTest, AddsAllOrNothingAndRemovesWithoutMemory) {
    if (!kCountsOperatorNew) GTEST_SKIP() << "operator new cannot be made to fail";
    Map map;
    map.Add(1, [](std::string& calls) { calls += 'a'; });
    for (std::uint64_t nth = 1; nth <= 2; ++nth) {
        FaultPlan plan(FaultKind::Allocate, nth, FaultPlan::Span::FromThenOn);
        EXPECT_THROW(map.Add(2, [](std::string& calls) { calls += 'b'; }), std::bad_alloc);
    }
    map.Add(2, [](std::string& calls) { calls += 'b'; });
    {
        FaultPlan plan(FaultKind::Allocate, 1, FaultPlan::Span::FromThenOn);
        map.Remove(1);
    }
    EXPECT_EQ(called(map), "b");
    map.Add(3, [](std::string& calls) { calls += 'c'; });
    EXPECT_EQ(called(map), "bc");
}

TEST(ListenerMapTest, ChangesWhileThreadsDispatch) {
    Map map;
    std::atomic<bool> done{false};
    map.Add(1, [](std::string& calls) { calls += 'a'; });
    const auto dispatch = [&] {
        while (!done) {
            EXPECT_EQ(called(map).front(), 'a');
        }
    };
    std::thread first(dispatch);
    std::thread second(dispatch);
    const auto captured = std::make_shared<int>(0);
    for (std::int64_t id = 2; id < 1000; ++id) {
        map.Add(id, [kept = captured](std::string& calls) { calls += static_cast<char>('b' + *kept); });
        map.Reclaim();
        map.Remove(id);
        map.Reclaim();
    }
    done = true;
    first.join();
    second.join();
    map.Reclaim();
    EXPECT_EQ(captured.use_count(), 1);
}

}  // namespace
}  // namespace Mivra::Test
