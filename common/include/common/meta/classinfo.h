// Compile-time class reflection: declared bases, script-visible methods and record fields.
//
//   struct Point2 {
//       int32_t x = 0, y = 0;
//       struct ClassAttributes__ {
//           using Class = Point2;
//           static constexpr auto attributes() {
//               return std::make_tuple(common::meta::ClassFields{[](auto* self) {
//                   return std::make_tuple(common::meta::createFieldInfo("x", &self->x),
//                                          common::meta::createFieldInfo("y", &self->y));
//               }});
//           }
//       };
//   };
#pragma once

#include <string_view>
#include <tuple>
#include <type_traits>

#include "common/diagnostics/runtimecheck.h"
#include "common/utils/functor.h"

namespace common::meta {

struct ClassBaseAttribute {};
struct ClassMethodsAttribute {};
struct ClassFieldsAttribute {};

/// The declared base classes, whose methods a class inherits.
template <typename... Bases>
struct ClassBase {
    using Key = ClassBaseAttribute;
    using Types = TypeList<Bases...>;
};

/// One script-visible method: the member-function pointer is bound at compile time, the name is stored.
template <auto Method>
struct MethodInfo {
    static constexpr auto method = Method;
    constexpr std::string_view name() const { return m_name; }
    std::string_view m_name;
};

template <auto Method>
constexpr MethodInfo<Method> createMethodInfo(std::string_view name) {
    return MethodInfo<Method>{name};
}

/// The script-visible methods of a class, in declaration order.
template <typename... Infos>
struct ClassMethods {
    using Key = ClassMethodsAttribute;
    constexpr explicit ClassMethods(Infos... infos) : methods(infos...) {}
    std::tuple<Infos...> methods;
};

/// A record field bound to one instance.
template <typename FieldType>
struct FieldInfo {
    constexpr std::string_view name() const { return m_name; }
    FieldType& value() const {
        COMMON_CHECK_AT("../common/include/common/meta/classinfo", __LINE__, m_value != nullptr,
                        "Attempt to access filed of uninitialized instance");
        return *m_value;
    }
    std::string_view m_name;
    FieldType* m_value = nullptr;
};

template <typename FieldType>
constexpr FieldInfo<FieldType> createFieldInfo(std::string_view name, FieldType* value) {
    return FieldInfo<FieldType>{name, value};
}

/// The fields of a record: a callable from an instance pointer to a tuple of `FieldInfo`.
template <typename Getter>
struct ClassFields {
    using Key = ClassFieldsAttribute;
    Getter getter;
};
template <typename Getter>
ClassFields(Getter) -> ClassFields<Getter>;

}  // namespace common::meta

namespace common::meta_internal {

/// Whether `C` declares attributes of its own (an inherited `ClassAttributes__` does not count).
template <typename C, typename = void>
struct HasAttributes : std::false_type {};
template <typename C>
struct HasAttributes<C, std::enable_if_t<std::is_same_v<typename C::ClassAttributes__::Class, C>>> : std::true_type {};

template <typename C>
constexpr auto classAttributes() {
    if constexpr (HasAttributes<C>::value)
        return C::ClassAttributes__::attributes();
    else
        return std::tuple<>();
}

struct NoAttribute {};

template <typename Key, typename Tuple, size_t I = 0>
constexpr auto findAttribute(const Tuple& tuple) {
    if constexpr (I == std::tuple_size_v<Tuple>)
        return NoAttribute{};
    else if constexpr (std::is_same_v<typename std::tuple_element_t<I, Tuple>::Key, Key>)
        return std::get<I>(tuple);
    else
        return findAttribute<Key, Tuple, I + 1>(tuple);
}

}  // namespace common::meta_internal

namespace common::meta {

/// The attribute found under `Key` in `C`'s declaration, or `meta_internal::NoAttribute`.
template <typename C, typename Key>
constexpr auto attributeValue() {
    return meta_internal::findAttribute<Key>(meta_internal::classAttributes<C>());
}

}  // namespace common::meta

namespace common::meta_internal {

template <typename Attribute>
struct BaseTypes {
    using type = typename Attribute::Types;
};
template <>
struct BaseTypes<NoAttribute> {
    using type = TypeList<>;
};

template <typename C>
using DeclaredBases = typename BaseTypes<decltype(meta::attributeValue<C, meta::ClassBaseAttribute>())>::type;

/// `C`'s own methods, in declaration order.
template <typename C>
constexpr auto classMethods__() {
    constexpr auto attribute = meta::attributeValue<C, meta::ClassMethodsAttribute>();
    if constexpr (std::is_same_v<std::remove_const_t<decltype(attribute)>, NoAttribute>)
        return std::tuple<>();
    else
        return attribute.methods;
}

template <typename C, typename Bases = DeclaredBases<C>>
struct ClassAndBaseMethods;

/// The methods of each declared base (recursively) first, then `C`'s own.
template <typename C, typename... Bases>
struct ClassAndBaseMethods<C, TypeList<Bases...>> {
    static constexpr auto methods() {
        return std::tuple_cat(ClassAndBaseMethods<Bases>::methods()..., classMethods__<C>());
    }
};

template <typename C>
auto classFields__(const C* instance) {
    auto attribute = meta::attributeValue<C, meta::ClassFieldsAttribute>();
    if constexpr (std::is_same_v<decltype(attribute), NoAttribute>)
        return std::tuple<>();
    else
        return attribute.getter(instance);
}

template <typename C, typename Bases = DeclaredBases<C>>
struct ClassAndBaseFields;

/// The fields of each declared base first, then `C`'s own, bound to `instance`.
template <typename C, typename... Bases>
struct ClassAndBaseFields<C, TypeList<Bases...>> {
    static auto fields(const C* instance) {
        return std::tuple_cat(ClassAndBaseFields<Bases>::fields(instance)..., classFields__<C>(instance));
    }
};

}  // namespace common::meta_internal

namespace common::meta {

/// All script-visible methods of `C`, inherited ones first.
template <typename C>
constexpr auto classMethods() {
    return meta_internal::ClassAndBaseMethods<C>::methods();
}

/// The field descriptions of `instance`, bases' fields first.
template <typename C>
auto classFields(const C& instance) {
    return meta_internal::ClassAndBaseFields<C>::fields(&instance);
}

}  // namespace common::meta
