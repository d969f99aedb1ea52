// The state store: one value per state type, changed by actions, watched by subscribers.
// Callable from any thread (never from a block on the store's own two queues). Reducers and async
// operations run on the caller's thread; each handler runs asynchronously on its subscriber's
// queue.
#pragma once

#include <any>
#include <concepts>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <type_traits>
#include <typeindex>
#include <typeinfo>
#include <utility>

#include "pelora/core/export.h"
#include "pelora/platform/dispatch.hpp"

namespace pelora {

// Marker base of every state value (plain copyable records).
struct IState {};

// Owns store subscriptions; the store holds owners weakly, so a dead owner's handlers stop.
class PELORA_API Subscriber {
 public:
  virtual ~Subscriber() = default;
};

// Changes one state synchronously: `reduce` returns the new value.
template <class A>
concept Action = requires {
  typename A::StateType;
}
&&std::derived_from<typename A::StateType, IState>&& requires(const A& action,
                                                              const typename A::StateType& state) {
  { action.reduce(state) } -> std::convertible_to<typename A::StateType>;
};

// Changes one state after an operation: `operation` calls its completion (once, on any thread)
// with an optional result, then `reduce` gets the state read at dispatch and that result.
template <class A>
concept AsyncAction = requires {
  typename A::StateType;
  typename A::ResultType;
}
&&std::derived_from<typename A::StateType, IState>&& std::copy_constructible<A>&& requires(
    const A& action, const typename A::StateType& state,
    std::function<void(std::optional<typename A::ResultType>)> completion,
    std::optional<typename A::ResultType> result) {
  action.operation(state, completion);
  { action.reduce(state, result) } -> std::convertible_to<typename A::StateType>;
};

namespace detail {
class StoreCore;

// The state type a handler lambda takes (its only parameter, without const and &).
template <class F>
struct HandlerParameter : HandlerParameter<decltype(&F::operator())> {};
template <class C, class R, class P>
struct HandlerParameter<R (C::*)(P) const> {
  using type = std::remove_cvref_t<P>;
};
template <class C, class R, class P>
struct HandlerParameter<R (C::*)(P)> {
  using type = std::remove_cvref_t<P>;
};

template <class F>
concept DeducibleHandler = requires {
  &std::remove_cvref_t<F>::operator();
}
&&std::derived_from<typename HandlerParameter<std::remove_cvref_t<F>>::type, IState>;
}  // namespace detail

class PELORA_API Store {
 public:
  Store();
  ~Store();
  Store(const Store&) = delete;
  Store& operator=(const Store&) = delete;

  // Adds `state`; ignored when a state of type S is already held (the first value wins).
  template <class S>
  requires std::derived_from<S, IState>
  void provide(S state) { provideErased(typeid(S), std::any(std::move(state))); }

  // Reduces the held state on the calling thread, stores it and notifies subscribers.
  // Does nothing when no state of the action's type is held.
  template <Action A>
  void dispatch(const A& action) {
    using S = typename A::StateType;
    const auto held = stateOf(typeid(S));
    const S* state = held ? std::any_cast<S>(held.get()) : nullptr;
    if (state == nullptr) return;
    replaceState(typeid(S), std::any(S(action.reduce(*state))));
  }

  // Starts the operation with the held state; its completion reduces that same state (read now,
  // even if changed meanwhile), stores the result and notifies. The store does not wait.
  template <AsyncAction A>
  void dispatch(const A& action) {
    using S = typename A::StateType;
    using R = typename A::ResultType;
    const auto held = stateOf(typeid(S));
    const S* state = held ? std::any_cast<S>(held.get()) : nullptr;
    if (state == nullptr) return;
    action.operation(
        *state, [action, held, state, replace = stateReplacer(typeid(S))](std::optional<R> result) {
          replace(std::any(S(action.reduce(*state, std::move(result)))));
        });
  }

  // Calls `handler` on `queue` with every new value of S for as long as `owner` lives; with
  // `initialState`, also once with the value held now (if any). Returns the subscription id.
  template <class S>
  requires std::derived_from<S, IState> std::int64_t subscribe(
      const std::shared_ptr<Subscriber>& owner, bool initialState,
      std::shared_ptr<platform::SerialQueue> queue, std::function<void(const S&)> handler) {
    return subscribeErased(owner, initialState, std::move(queue), typeid(S),
                           [handler = std::move(handler)](const std::any& value) {
                             handler(*std::any_cast<S>(&value));
                           });
  }

  // The same, with S taken from the handler's parameter type.
  template <class F>
  requires detail::DeducibleHandler<F> std::int64_t subscribe(
      const std::shared_ptr<Subscriber>& owner, bool initialState,
      std::shared_ptr<platform::SerialQueue> queue, F&& handler) {
    using S = typename detail::HandlerParameter<std::remove_cvref_t<F>>::type;
    return subscribe<S>(owner, initialState, std::move(queue),
                        std::function<void(const S&)>(std::forward<F>(handler)));
  }

  // Removes the subscription `identifier`; an unknown identifier changes nothing.
  void unsubscribe(std::int64_t identifier);

  // The held state of type S, if any, without a copy (a later dispatch replaces it and leaves
  // this one as it was).
  template <class S>
  std::shared_ptr<const S> snapshot() const {
    auto held = stateOf(typeid(S));
    const S* state = held ? std::any_cast<S>(held.get()) : nullptr;
    if (state == nullptr) return nullptr;
    return std::shared_ptr<const S>(std::move(held), state);
  }

  // Calls `reader` with the held state of type S (null when there is none) where it lies: no
  // copy, not even of a pointer, for readers on hot paths. Dispatches wait until it returns, so
  // `reader` must not dispatch to this store.
  template <class S, class F>
  void read(F&& reader) const {
    readErased(typeid(S), &reader, [](const void* context, const std::any* held) {
      const S* state = held != nullptr ? std::any_cast<S>(held) : nullptr;
      (*static_cast<const std::remove_reference_t<F>*>(context))(state);
    });
  }

  // A copy of the held state of type S, if any.
  template <class S>
  std::optional<S> currentState() const {
    const auto held = stateOf(typeid(S));
    const S* state = held ? std::any_cast<S>(held.get()) : nullptr;
    if (state == nullptr) return std::nullopt;
    return *state;
  }

 private:
  using ErasedHandler = std::function<void(const std::any&)>;

  void provideErased(std::type_index type, std::any state);
  // The held value of `type` (shared, never changed in place), or null.
  std::shared_ptr<const std::any> stateOf(std::type_index type) const;
  // Calls `call(context, state)` with the held value of `type` (or null) under the state lock.
  void readErased(std::type_index type, const void* context,
                  void (*call)(const void*, const std::any*)) const;
  // Stores `state` as the value of `type` and notifies that type's subscribers.
  void replaceState(std::type_index type, std::any state);
  // replaceState for later use (async completions): keeps the store's state alive.
  std::function<void(std::any)> stateReplacer(std::type_index type) const;
  std::int64_t subscribeErased(const std::shared_ptr<Subscriber>& owner, bool initialState,
                               std::shared_ptr<platform::SerialQueue> queue, std::type_index type,
                               ErasedHandler handler);

  std::shared_ptr<detail::StoreCore> core_;
};

}  // namespace pelora
