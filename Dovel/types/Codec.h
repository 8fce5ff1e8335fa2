// A callable taking one Arg& in 16 bytes: a function pointer beside either the callable
// itself, when it is trivially copyable and no larger than a pointer (a codec's lambda
// capturing its attribute, or a size), or a shared box holding it. A session keeps two
// per synchronised attribute; as std::function they took 32 bytes each.
//
// Thread contract: a value type. Copies of a boxed callable share the box, whose count
// is atomic; calling it is as thread-safe as the callable.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstring>
#include <functional>
#include <new>
#include <type_traits>
#include <utility>

namespace Dovel {

template <typename Arg> class Codec {
public:
    Codec() = default;
    Codec(std::nullptr_t) {}
    template <typename F,
              typename = std::enable_if_t<!std::is_same<std::decay_t<F>, Codec>::value &&
                                          !std::is_same<std::decay_t<F>, std::nullptr_t>::value>>
    Codec(F&& callable) {
        using Fn = std::decay_t<F>;
        // Copies share a boxed callable, so it must not change when called.
        static_assert(std::is_invocable<const Fn&, Arg&>::value,
                      "a codec's callable is called as const");
        // An empty function or a null pointer makes an empty codec, as with std::function.
        if constexpr (std::is_pointer<Fn>::value || IsFunction<Fn>::value)
            if (!callable)
                return;
        if constexpr (fitsInline<Fn>()) {
            new (storage) Fn(std::forward<F>(callable));
            invoke = [](const void* held, Arg& arg) { (*static_cast<const Fn*>(held))(arg); };
        } else {
            Box* box = new Boxed<Fn>(std::forward<F>(callable));
            std::memcpy(storage, &box, sizeof box);
            invoke = &callBoxed;
        }
    }
    Codec(const Codec& other) : invoke(other.invoke) {
        std::memcpy(storage, other.storage, sizeof storage);
        if (isBoxed())
            box()->references.fetch_add(1, std::memory_order_relaxed);
    }
    Codec(Codec&& other) noexcept : invoke(other.invoke) {
        std::memcpy(storage, other.storage, sizeof storage);
        other.invoke = nullptr;
    }
    Codec& operator=(Codec other) noexcept {
        std::swap(invoke, other.invoke);
        unsigned char held[sizeof storage];
        std::memcpy(held, storage, sizeof storage);
        std::memcpy(storage, other.storage, sizeof storage);
        std::memcpy(other.storage, held, sizeof storage);
        return *this;
    }
    ~Codec() {
        if (isBoxed() && box()->references.fetch_sub(1, std::memory_order_acq_rel) == 1)
            delete box();
    }

    explicit operator bool() const { return invoke != nullptr; }
    // The callable when it is a boxed T, else null (what std::function::target answers
    // for the callables that are not kept in place).
    template <typename T> const T* target() const {
        const auto* held = isBoxed() ? dynamic_cast<const Boxed<T>*>(box()) : nullptr;
        return held ? &held->callable : nullptr;
    }
    void operator()(Arg& arg) const { invoke(storage, arg); }

    // How a codec that keeps its callable in place is called: with the bytes it keeps.
    using Invoke = void (*)(const void* held, Arg& arg);
    // For a holder that keeps the bytes of two codecs once (CodecPair): the call of a
    // codec kept in place, else null (empty or boxed); the bytes it keeps.
    Invoke inlineCall() const { return isBoxed() ? nullptr : invoke; }
    const void* heldBytes() const { return storage; }
    // A codec kept in place, from what inlineCall and heldBytes gave.
    static Codec fromInline(Invoke call, const void* bytes) {
        Codec codec;
        codec.invoke = call;
        std::memcpy(codec.storage, bytes, sizeof codec.storage);
        return codec;
    }

private:
    template <typename T> struct IsFunction : std::false_type {};
    template <typename S> struct IsFunction<std::function<S>> : std::true_type {};
    struct Box {
        virtual ~Box() = default;
        virtual void call(Arg& arg) = 0;
        std::atomic<int> references{1};
    };
    template <typename Fn> struct Boxed final : Box {
        template <typename F> explicit Boxed(F&& callable) : callable(std::forward<F>(callable)) {}
        void call(Arg& arg) override { callable(arg); }
        Fn callable;
    };

    template <typename Fn> static constexpr bool fitsInline() {
        return sizeof(Fn) <= sizeof(void*) && alignof(Fn) <= alignof(void*) &&
               std::is_trivially_copyable<Fn>::value && std::is_trivially_destructible<Fn>::value;
    }
    static void callBoxed(const void* held, Arg& arg) {
        Box* box = nullptr;
        std::memcpy(&box, held, sizeof box);
        box->call(arg);
    }
    bool isBoxed() const { return invoke == &callBoxed; }
    Box* box() const {
        Box* held = nullptr;
        std::memcpy(&held, storage, sizeof held);
        return held;
    }

    Invoke invoke = nullptr;
    alignas(void*) unsigned char storage[sizeof(void*)] = {};
};

} // namespace Dovel
