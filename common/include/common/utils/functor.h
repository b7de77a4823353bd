// Callable interface shared by every handler and callback, and its lambda wrapper.
#pragma once

#include <memory>
#include <utility>

namespace common {

/// A compile-time list of types; carries no data, spells a functor's signature.
template <typename... Ts>
struct TypeList {};

template <bool IsConst, typename R, typename Args>
class FunctorClass;

template <typename Lambda, bool IsConst, typename R, typename... Args>
class DefaultFunctor;

/// Abstract callable with a non-const `invoke`.
template <typename R, typename... Args>
class FunctorClass<false, R, TypeList<Args...>> {
public:
    virtual ~FunctorClass() = default;
    virtual R invoke(Args... args) = 0;

    /// Wraps `lambda` (moved in) into a heap-allocated `DefaultFunctor`.
    template <typename Lambda>
    static std::unique_ptr<FunctorClass> makeUnique(Lambda&& lambda) {
        return std::make_unique<DefaultFunctor<std::decay_t<Lambda>, false, R, Args...>>(std::forward<Lambda>(lambda));
    }
};

/// Abstract callable with a const `invoke`.
template <typename R, typename... Args>
class FunctorClass<true, R, TypeList<Args...>> {
public:
    virtual ~FunctorClass() = default;
    virtual R invoke(Args... args) const = 0;

    /// Wraps `lambda` (moved in) into a heap-allocated `DefaultFunctor`.
    template <typename Lambda>
    static std::unique_ptr<FunctorClass> makeUnique(Lambda&& lambda) {
        return std::make_unique<DefaultFunctor<std::decay_t<Lambda>, true, R, Args...>>(std::forward<Lambda>(lambda));
    }
};

/// Holds a lambda by value and forwards `invoke` to it.
template <typename Lambda, typename R, typename... Args>
class DefaultFunctor<Lambda, false, R, Args...> final : public FunctorClass<false, R, TypeList<Args...>> {
public:
    explicit DefaultFunctor(Lambda lambda) : m_lambda(std::move(lambda)) {}
    R invoke(Args... args) override { return m_lambda(std::forward<Args>(args)...); }

private:
    Lambda m_lambda;
};

template <typename Lambda, typename R, typename... Args>
class DefaultFunctor<Lambda, true, R, Args...> final : public FunctorClass<true, R, TypeList<Args...>> {
public:
    explicit DefaultFunctor(Lambda lambda) : m_lambda(std::move(lambda)) {}
    R invoke(Args... args) const override { return m_lambda(std::forward<Args>(args)...); }

private:
    Lambda m_lambda;
};

}  // namespace common
