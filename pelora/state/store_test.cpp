#include "pelora/state/store.hpp"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace pelora {
namespace {

using namespace std::chrono_literals;
using platform::SerialQueue;

struct Count : IState {
  int value = 0;
};
struct Name : IState {
  std::string text;
};

struct Add {
  using StateType = Count;
  int amount;
  Count reduce(const Count& state) const { return Count{{}, state.value + amount}; }
};
struct Rename {
  using StateType = Name;
  std::string text;
  Name reduce(const Name&) const { return Name{{}, text}; }
};

// Hands its completion to the test, which calls it when it likes.
struct AddLater {
  using StateType = Count;
  using ResultType = int;
  std::function<void(std::function<void(std::optional<int>)>)> capture;
  void operation(const Count&, std::function<void(std::optional<int>)> completion) const {
    capture(std::move(completion));
  }
  Count reduce(const Count& state, std::optional<int> result) const {
    return Count{{}, state.value + result.value_or(-100)};
  }
};

static_assert(Action<Add> && !AsyncAction<Add>);
static_assert(AsyncAction<AddLater> && !Action<AddLater>);

struct Owner : Subscriber {};

// What one subscription received, in order.
class Received {
 public:
  explicit Received(std::shared_ptr<SerialQueue> queue) : queue_(std::move(queue)) {}
  std::function<void(const Count&)> handler() {
    return [this](const Count& state) {
      std::lock_guard lock(mutex_);
      values_.push_back(state.value);
    };
  }
  // Everything submitted so far has run once this returns.
  std::vector<int> settled() {
    queue_->sync([] {});
    std::lock_guard lock(mutex_);
    return values_;
  }

 private:
  std::shared_ptr<SerialQueue> queue_;
  std::mutex mutex_;
  std::vector<int> values_;
};

TEST(StoreSubscriptions, InitialStateBeforeAndAfterProvide) {
  auto store = std::make_shared<Store>();
  auto owner = std::make_shared<Owner>();
  auto queue = SerialQueue::create("test.subscriber");
  Received early(queue), late(queue), quiet(queue);

  store->subscribe(owner, true, queue, early.handler());
  store->dispatch(Add{3});  // no state yet: nothing happens
  EXPECT_TRUE(early.settled().empty()) << "nothing to deliver before provide";
  EXPECT_EQ(store->currentState<Count>(), std::nullopt);

  store->provide(Count{{}, 5});
  EXPECT_EQ(early.settled(), std::vector<int>{5});

  store->subscribe(owner, true, queue, late.handler());
  store->subscribe<Count>(owner, false, queue, quiet.handler());
  EXPECT_EQ(late.settled(), std::vector<int>{5});
  EXPECT_TRUE(quiet.settled().empty());

  // A second provide is ignored and notifies nobody.
  store->provide(Count{{}, 99});
  store->dispatch(Add{1});
  EXPECT_EQ(early.settled(), (std::vector<int>{5, 6}));
  EXPECT_EQ(quiet.settled(), std::vector<int>{6});
}

TEST(StoreSubscriptions, HandlersRunOnTheirQueueInOrderUntilUnsubscribed) {
  auto store = std::make_shared<Store>();
  store->provide(Count{});
  auto owner = std::make_shared<Owner>();
  auto queue = SerialQueue::create("test.order");
  std::vector<std::string> log;  // only touched on `queue`
  store->subscribe(owner, false, queue, [&](const Count& s) {
    EXPECT_TRUE(queue->isCurrent());
    log.push_back("first " + std::to_string(s.value));
  });
  const auto second = store->subscribe(owner, false, queue, [&](const Count& s) {
    log.push_back("second " + std::to_string(s.value));
  });
  store->dispatch(Add{1});
  Store().unsubscribe(second);  // another store's: nothing there
  store->dispatch(Add{1});
  store->unsubscribe(second);
  store->dispatch(Add{1});
  queue->sync([] {});
  EXPECT_EQ(log,
            (std::vector<std::string>{"first 1", "second 1", "first 2", "second 2", "first 3"}));
}

TEST(StoreSubscriptions, DeadOwnersAreSkippedAndPrunedAtTheNextDispatch) {
  auto store = std::make_shared<Store>();
  store->provide(Count{});
  auto queue = SerialQueue::create("test.prune");
  auto alive = std::make_shared<Owner>();
  auto doomed = std::make_shared<Owner>();
  Received kept(queue);
  int doomedCalls = 0;  // on `queue`
  // The handler's captures live exactly as long as the subscription record.
  auto token = std::make_shared<int>(0);
  std::weak_ptr<int> watch = token;
  store->subscribe(alive, false, queue, kept.handler());
  store->subscribe(doomed, false, queue,
                   [&, token = std::move(token)](const Count&) { ++doomedCalls; });
  store->dispatch(Add{1});
  EXPECT_EQ(kept.settled(), std::vector<int>{1});

  doomed.reset();
  EXPECT_FALSE(watch.expired()) << "pruned only at the next notification";
  store->dispatch(Add{1});
  EXPECT_EQ(kept.settled(), (std::vector<int>{1, 2}));
  EXPECT_EQ(queue->sync([&] { return doomedCalls; }), 1);
  EXPECT_TRUE(watch.expired()) << "the dead subscription was not removed";
}

TEST(StoreAsyncActions, ReduceTheStateReadAtDispatch) {
  auto store = std::make_shared<Store>();
  std::vector<std::function<void(std::optional<int>)>> completions;
  AddLater later{[&](auto completion) { completions.push_back(std::move(completion)); }};

  store->provide(Count{{}, 1});
  auto owner = std::make_shared<Owner>();
  auto queue = SerialQueue::create("test.async");
  Received seen(queue);
  store->subscribe(owner, false, queue, seen.handler());
  store->dispatch(later);
  store->dispatch(later);
  ASSERT_EQ(completions.size(), 2u);
  EXPECT_EQ(store->currentState<Count>()->value, 1) << "the store does not wait";

  store->dispatch(Add{10});  // 11, soon overwritten: the last writer wins
  std::thread([&] { completions[0](5); }).join();
  EXPECT_EQ(store->currentState<Count>()->value, 6);
  completions[1](std::nullopt);
  EXPECT_EQ(store->currentState<Count>()->value, -99);
  EXPECT_EQ(seen.settled(), (std::vector<int>{11, 6, -99}));

  // A completion may outlive the Store handle; subscribers still hear of it.
  completions.clear();
  store->dispatch(later);
  store.reset();
  completions[0](1);
  EXPECT_EQ(seen.settled(), (std::vector<int>{11, 6, -99, -98}));
}

TEST(StoreSubscriptions, HandlerMayCallBackIntoTheStore) {
  auto store = std::make_shared<Store>();
  store->provide(Count{});
  store->provide(Name{});
  auto owner = std::make_shared<Owner>();
  auto queue = SerialQueue::create("test.reentrant");
  std::int64_t self = 0;
  Received counts(queue);
  std::vector<std::string> names;  // only touched on `queue`
  store->subscribe(owner, false, queue, [&](const Name& name) { names.push_back(name.text); });
  self = store->subscribe(owner, false, queue, [&](const Count& count) {
    store->dispatch(Rename{"count " + std::to_string(count.value)});
    store->unsubscribe(self);
    store->subscribe(owner, true, queue, counts.handler());
    EXPECT_EQ(store->currentState<Count>()->value, count.value);
  });
  store->dispatch(Add{7});
  queue->sync([] {});  // the handler has run and queued its notifications
  EXPECT_EQ(counts.settled(), std::vector<int>{7});
  store->dispatch(Add{1});
  EXPECT_EQ(counts.settled(), (std::vector<int>{7, 8}));
  EXPECT_EQ(queue->sync([&] { return names; }), std::vector<std::string>{"count 7"})
      << "unsubscribed itself";
}

TEST(StoreStress, ConcurrentDispatchSubscribeAndUnsubscribe) {
  auto store = std::make_shared<Store>();
  store->provide(Count{});
  auto queue = SerialQueue::create("test.stress");
  std::atomic<long> delivered{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < 6; ++t) {
    threads.emplace_back([&, t] {
      auto owner = std::make_shared<Owner>();
      for (int i = 0; i < 300; ++i) {
        const auto id = store->subscribe(owner, i % 2 == 0, queue,
                                         [&](const Count&) { delivered.fetch_add(1); });
        store->dispatch(Add{1});
        if (i % 3 == 0) store->unsubscribe(id);
        if (i % 50 == 0) owner = std::make_shared<Owner>();  // the old one dies
        if (t == 0) store->provide(Count{{}, -1});           // always ignored
        (void)store->currentState<Count>();
      }
    });
  }
  for (auto& thread : threads) thread.join();
  queue->sync([] {});
  const int value = store->currentState<Count>()->value;
  EXPECT_GT(value, 0);
  EXPECT_LE(value, 6 * 300);  // racing dispatches may overwrite each other: accepted
  EXPECT_GT(delivered.load(), 0);
}

// Reads come from a per-thread cache while nothing changed: a change is seen by the very next read
// on any thread, a read inside a read is safe, and a store never answers with another store's
// state, even one that lived at the same address.
int countOf(const Store& store) {
  int value = -1;
  store.read<Count>([&](const Count* count) { value = count ? count->value : -1; });
  return value;
}

TEST(StoreReads, EveryChangeIsSeenAtOnceAndStoresNeverShareACache) {
  Store a;
  Store b;
  a.provide(Count{{}, 1});
  b.provide(Count{{}, 100});
  a.provide(Name{{}, "a"});
  for (int i = 0; i < 1000; ++i) {
    ASSERT_EQ(countOf(a), 1 + i);
    ASSERT_EQ(countOf(b), 100 + 2 * i);
    a.dispatch(Add{1});
    b.dispatch(Add{2});
  }
  // Nested reads: the outer state stays valid while inner reads fill the cache.
  a.read<Count>([&](const Count* outer) {
    ASSERT_NE(outer, nullptr);
    const int before = outer->value;
    for (int i = 0; i < 10; ++i) {
      Store other;
      other.provide(Count{{}, i});
      EXPECT_EQ(countOf(other), i);
      a.read<Name>([](const Name* name) { EXPECT_EQ(name->text, "a"); });
    }
    EXPECT_EQ(outer->value, before);
  });
  EXPECT_EQ(countOf(Store()), -1) << "a store without the state reads nothing";
  for (int i = 0; i < 50; ++i) {
    auto store = std::make_unique<Store>();
    store->provide(Count{{}, i});
    ASSERT_EQ(countOf(*store), i) << "a cached state of an earlier store at this address";
  }

  // Other threads see every change as soon as it is made.
  std::atomic<int> published{0};
  std::atomic<bool> stop{false};
  std::atomic<int> stale{0};
  std::vector<std::thread> readers;
  for (int t = 0; t < 3; ++t) {
    readers.emplace_back([&] {
      while (!stop.load()) {
        const int floor = published.load();
        if (countOf(a) < floor) ++stale;
      }
    });
  }
  for (int i = 0; i < 2000; ++i) {
    a.dispatch(Add{1});
    published.store(countOf(a));
  }
  stop = true;
  for (auto& reader : readers) reader.join();
  EXPECT_EQ(stale.load(), 0);
}

TEST(StoreDeathTest, SubscribeWithoutOwnerOrQueueIsFatal) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  Store store;
  EXPECT_DEATH(store.subscribe(nullptr, false, SerialQueue::create("q"), [](const Count&) {}),
               "needs an owner");
  EXPECT_DEATH(store.subscribe(std::make_shared<Owner>(), false, nullptr, [](const Count&) {}),
               "needs a queue");
}

}  // namespace
}  // namespace pelora
