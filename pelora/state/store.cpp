#include "pelora/state/store.hpp"

#include "pelora/core/fatal_error.hpp"
#include "pelora/platform/concurrency.hpp"

#include <array>
#include <atomic>
#include <limits>
#include <mutex>
#include <shared_mutex>
#include <string>
#include <vector>

#include "pelora/platform/console.hpp"

namespace pelora {
namespace {

// Shared by every store of the process: identifiers are never reused.
std::atomic<std::int64_t> nextSubscriptionID{1};
std::atomic<std::uint64_t> nextStoreID{1};

std::int64_t takeSubscriptionID() {
  std::int64_t id = nextSubscriptionID.load();
  do {
    if (id == std::numeric_limits<std::int64_t>::max()) {
      fatalError("Store: subscription identifiers overflowed");
    }
  } while (!nextSubscriptionID.compare_exchange_weak(id, id + 1));
  return id;
}

}  // namespace

namespace detail {

// The store's data: the states behind a reader-writer lock (every recorded event reads them, from
// any number of threads at once) and the subscribers behind a queue only ever entered with sync.
// Shared with pending async completions, so a completion that arrives after the Store handle is
// gone still finds it.
class StoreCore {
 public:
  using ErasedHandler = std::function<void(const std::any&)>;

  struct Container {
    std::type_index type;
    std::shared_ptr<const std::any> state;
  };

  struct Subscription {
    std::weak_ptr<Subscriber> owner;
    std::shared_ptr<platform::SerialQueue> queue;
    std::type_index type;
    std::shared_ptr<const ErasedHandler> handler;
    std::int64_t subscriptionID;
  };

  StoreCore() : syncQueue_("state.sync." + std::string(platform::queueLabelSuffix)) {}

  void provide(std::type_index type, std::any state) {
    auto value = std::make_shared<const std::any>(std::move(state));
    // Look-up and append in one turn, so two racing provides cannot both add a container.
    const bool added = [&] {
      std::unique_lock lock(statesMutex_);
      if (find(type) != nullptr) return false;
      states_.push_back(Container{type, value});
      version_.fetch_add(1, std::memory_order_release);
      return true;
    }();
    if (added) notify(matching(type), type, value);
  }

  std::shared_ptr<const std::any> stateOf(std::type_index type) const {
    std::shared_lock lock(statesMutex_);
    const Container* container = find(type);
    return container != nullptr ? container->state : nullptr;
  }

  // Hands `call` the state from this thread's cache while no change came since it was cached:
  // recording threads then touch no shared counter or lock word at all (each costs a cache line
  // moving between cores). A change bumps version_, and the next read here takes the new state.
  void read(std::type_index type, const void* context,
            void (*call)(const void*, const std::any*)) const {
    struct Cached {
      std::uint64_t core = 0;  // 0: empty
      std::uint64_t version = 0;
      std::type_index type = typeid(void);
      std::shared_ptr<const std::any> state;
    };
    thread_local std::array<Cached, 4> cache;
    thread_local unsigned nextSlot = 0;
    thread_local int reading = 0;  // a read from inside a reader must not replace what it reads

    const std::uint64_t version = version_.load(std::memory_order_acquire);
    for (const Cached& entry : cache) {
      if (entry.core == id_ && entry.version == version && entry.type == type) {
        ++reading;
        struct Done {
          ~Done() { --reading; }
        } done;
        call(context, entry.state.get());
        return;
      }
    }
    std::shared_ptr<const std::any> state;
    std::uint64_t current = 0;
    {
      std::shared_lock lock(statesMutex_);
      const Container* container = find(type);
      if (container != nullptr) state = container->state;
      current = version_.load(std::memory_order_relaxed);
    }
    if (reading == 0) {
      Cached* slot = nullptr;
      for (Cached& entry : cache) {
        if (entry.core == id_ && entry.type == type) slot = &entry;
      }
      if (slot == nullptr) slot = &cache[nextSlot++ % cache.size()];
      *slot = Cached{id_, current, type, state};
    }
    call(context, state.get());
  }

  void replace(std::type_index type, std::any state) {
    auto value = std::make_shared<const std::any>(std::move(state));
    const bool stored = [&] {
      std::unique_lock lock(statesMutex_);
      Container* container = find(type);
      if (container == nullptr) return false;
      container->state = value;
      version_.fetch_add(1, std::memory_order_release);
      return true;
    }();
    if (stored) notify(matching(type), type, value);
  }

  std::int64_t subscribe(const std::shared_ptr<Subscriber>& owner, bool initialState,
                         std::shared_ptr<platform::SerialQueue> queue, std::type_index type,
                         ErasedHandler handler) {
    Subscription subscription{owner, std::move(queue), type,
                              std::make_shared<const ErasedHandler>(std::move(handler)),
                              takeSubscriptionID()};
    syncQueue_.sync([&] { subscribers_.push_back(subscription); });
    if (initialState) {
      if (auto value = stateOf(type)) notify({subscription}, type, value);
    }
    return subscription.subscriptionID;
  }

  void unsubscribe(std::int64_t identifier) {
    syncQueue_.sync([&] {
      std::erase_if(subscribers_, [&](const Subscription& subscription) {
        return subscription.subscriptionID == identifier;
      });
    });
  }

 private:
  // Under statesMutex_.
  Container* find(std::type_index type) {
    for (Container& container : states_) {
      if (container.type == type) return &container;
    }
    return nullptr;
  }
  const Container* find(std::type_index type) const {
    return const_cast<StoreCore*>(this)->find(type);
  }

  std::vector<Subscription> matching(std::type_index type) const {
    return syncQueue_.sync([&] {
      std::vector<Subscription> list;
      for (const Subscription& subscription : subscribers_) {
        if (subscription.type == type) list.push_back(subscription);
      }
      return list;
    });
  }

  // Submits the handlers of live owners in list order, then prunes dead owners. Runs outside
  // both queues: handlers only ever start asynchronously on their own queue.
  void notify(const std::vector<Subscription>& list, std::type_index type,
              const std::shared_ptr<const std::any>& value) {
    for (const Subscription& subscription : list) {
      if (subscription.type != type || subscription.owner.expired()) continue;
      subscription.queue->async([handler = subscription.handler, value] { (*handler)(*value); });
    }
    syncQueue_.sync([&] {
      std::erase_if(subscribers_,
                    [](const Subscription& subscription) { return subscription.owner.expired(); });
    });
  }

  // Never reused (unlike addresses): names this store in threads' caches of its states.
  const std::uint64_t id_ = nextStoreID.fetch_add(1, std::memory_order_relaxed);
  mutable std::shared_mutex statesMutex_;
  std::atomic<std::uint64_t> version_{1};  // bumped under statesMutex_ with every change of states_
  mutable ExclusiveRunner syncQueue_;
  std::vector<Container> states_;          // under statesMutex_, in the order provided
  std::vector<Subscription> subscribers_;  // on syncQueue_, in the order subscribed
};

}  // namespace detail

Store::Store() : core_(std::make_shared<detail::StoreCore>()) {}

Store::~Store() = default;

void Store::provideErased(std::type_index type, std::any state) {
  core_->provide(type, std::move(state));
}

std::shared_ptr<const std::any> Store::stateOf(std::type_index type) const {
  return core_->stateOf(type);
}

void Store::readErased(std::type_index type, const void* context,
                       void (*call)(const void*, const std::any*)) const {
  core_->read(type, context, call);
}

void Store::replaceState(std::type_index type, std::any state) {
  core_->replace(type, std::move(state));
}

std::function<void(std::any)> Store::stateReplacer(std::type_index type) const {
  return [core = core_, type](std::any state) { core->replace(type, std::move(state)); };
}

std::int64_t Store::subscribeErased(const std::shared_ptr<Subscriber>& owner, bool initialState,
                                    std::shared_ptr<platform::SerialQueue> queue,
                                    std::type_index type, ErasedHandler handler) {
  if (!owner) fatalError("Store::subscribe needs an owner");
  if (!queue) fatalError("Store::subscribe needs a queue for the handler");
  return core_->subscribe(owner, initialState, std::move(queue), type, std::move(handler));
}

void Store::unsubscribe(std::int64_t identifier) {
  core_->unsubscribe(identifier);
}

}  // namespace pelora
