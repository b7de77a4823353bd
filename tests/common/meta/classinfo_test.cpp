// Tests of compile-time class reflection: declared bases, methods (inherited first) and record fields.
#include "common/meta/classinfo.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <string_view>
#include <tuple>
#include <type_traits>
#include <vector>

#include "bridge/pointerevents.h"
#include "common/diagnostics/runtimecheck.h"

namespace {

using common::meta::ClassBase;
using common::meta::ClassFields;
using common::meta::ClassMethods;
using common::meta::createMethodInfo;

// ------------------------------------------------------------------------------------------------
// Classes with methods, in a small hierarchy

// Declares no attributes at all, like the component base.
struct Plain {
    virtual ~Plain() = default;
};

struct Root {
    int alpha() const { return 1; }
    void beta(int) {}

    struct ClassAttributes__ {
        using Class = Root;
        static constexpr auto attributes() {
            return std::make_tuple(
                ClassMethods(createMethodInfo<&Root::alpha>("alpha"), createMethodInfo<&Root::beta>("beta")));
        }
    };
};

struct Middle : Root {
    double gamma(double x, int y) { return x + y; }

    struct ClassAttributes__ {
        using Class = Middle;
        static constexpr auto attributes() {
            return std::make_tuple(ClassBase<Root>(), ClassMethods(createMethodInfo<&Middle::gamma>("gamma")));
        }
    };
};

struct Other {
    void omega() {}

    struct ClassAttributes__ {
        using Class = Other;
        static constexpr auto attributes() {
            return std::make_tuple(ClassMethods(createMethodInfo<&Other::omega>("omega")));
        }
    };
};

// Two bases, the first with a base of its own; the attributes in another order than usual.
struct Leaf : Middle, Other {
    void delta() {}

    struct ClassAttributes__ {
        using Class = Leaf;
        static constexpr auto attributes() {
            return std::make_tuple(ClassMethods(createMethodInfo<&Leaf::delta>("delta")), ClassBase<Middle, Other>());
        }
    };
};

// Over a base that declares nothing: the result is its own list.
struct Component : Plain {
    void run() const {}

    struct ClassAttributes__ {
        using Class = Component;
        static constexpr auto attributes() {
            return std::make_tuple(ClassBase<Plain>(), ClassMethods(createMethodInfo<&Component::run>("run")));
        }
    };
};

// Declares a base but no methods of its own.
struct BaseOnly : Root {
    struct ClassAttributes__ {
        using Class = BaseOnly;
        static constexpr auto attributes() { return std::make_tuple(ClassBase<Root>()); }
    };
};

template <typename Tuple, size_t... I>
std::vector<std::string> namesOf(const Tuple& tuple, std::index_sequence<I...>) {
    return {std::string(std::get<I>(tuple).name())...};
}
template <typename Tuple>
std::vector<std::string> namesOf(const Tuple& tuple) {
    return namesOf(tuple, std::make_index_sequence<std::tuple_size_v<Tuple>>());
}

using Names = std::vector<std::string>;

TEST(ClassMethodsTest, OwnMethodsInDeclarationOrder) {
    constexpr auto methods = common::meta::classMethods<Root>();
    EXPECT_EQ(namesOf(methods), (Names{"alpha", "beta"}));
    static_assert(std::get<0>(methods).method == &Root::alpha);
    static_assert(std::get<1>(methods).method == &Root::beta);
    static_assert(std::get<0>(methods).name() == "alpha");
}

TEST(ClassMethodsTest, BaseMethodsComeBeforeTheClassesOwn) {
    constexpr auto methods = common::meta::classMethods<Middle>();
    EXPECT_EQ(namesOf(methods), (Names{"alpha", "beta", "gamma"}));
    static_assert(std::get<2>(methods).method == &Middle::gamma);
}

TEST(ClassMethodsTest, BasesRecursivelyInTheOrderOfTheBaseList) {
    constexpr auto methods = common::meta::classMethods<Leaf>();
    EXPECT_EQ(namesOf(methods), (Names{"alpha", "beta", "gamma", "omega", "delta"}));
    static_assert(std::get<3>(methods).method == &Other::omega);
    static_assert(std::get<4>(methods).method == &Leaf::delta);
}

TEST(ClassMethodsTest, ClassWithoutAttributesHasNoMethods) {
    constexpr auto methods = common::meta::classMethods<Plain>();
    static_assert(std::tuple_size_v<std::remove_const_t<decltype(methods)>> == 0);
    EXPECT_TRUE(namesOf(methods).empty());
    static_assert(std::is_same_v<decltype(common::meta::attributeValue<Plain, common::meta::ClassMethodsAttribute>()),
                                 common::meta_internal::NoAttribute>);
}

TEST(ClassMethodsTest, BaseWithoutAttributesAddsNothing) {
    EXPECT_EQ(namesOf(common::meta::classMethods<Component>()), (Names{"run"}));
}

TEST(ClassMethodsTest, ClassWithABaseButNoMethodsInheritsTheBases) {
    EXPECT_EQ(namesOf(common::meta::classMethods<BaseOnly>()), (Names{"alpha", "beta"}));
    EXPECT_TRUE(namesOf(common::meta_internal::classMethods__<BaseOnly>()).empty());
}

TEST(ClassMethodsTest, MethodInfoCallsTheBoundMember) {
    constexpr auto methods = common::meta::classMethods<Middle>();
    Middle object;
    EXPECT_EQ((object.*std::get<0>(methods).method)(), 1);
    EXPECT_EQ((object.*std::get<2>(methods).method)(1.5, 2), 3.5);
    static_assert(sizeof(std::get<0>(methods)) == sizeof(std::string_view));  // only the name is stored
}

TEST(AttributeValueTest, FindsEachKindByItsKey) {
    using Bases = decltype(common::meta::attributeValue<Leaf, common::meta::ClassBaseAttribute>());
    static_assert(std::is_same_v<std::remove_const_t<Bases>, ClassBase<Middle, Other>>);
    static_assert(std::is_same_v<typename std::remove_const_t<Bases>::Types, common::TypeList<Middle, Other>>);
    constexpr auto methods = common::meta::attributeValue<Root, common::meta::ClassMethodsAttribute>();
    static_assert(std::tuple_size_v<decltype(methods.methods)> == 2);
    using Fields = decltype(common::meta::attributeValue<zel::Point2, common::meta::ClassFieldsAttribute>());
    static_assert(std::is_same_v<typename Fields::Key, common::meta::ClassFieldsAttribute>);
    SUCCEED();
}

// ------------------------------------------------------------------------------------------------
// Record fields

TEST(ClassFieldsTest, Point2FieldsInOrderReadingLiveValues) {
    zel::Point2 point{3, -4};
    auto fields = common::meta::classFields(point);
    static_assert(std::tuple_size_v<decltype(fields)> == 2);
    static_assert(std::is_same_v<decltype(std::get<0>(fields).value()), const int32_t&>);
    EXPECT_EQ(namesOf(fields), (Names{"x", "y"}));
    EXPECT_EQ(std::get<0>(fields).value(), 3);
    EXPECT_EQ(std::get<1>(fields).value(), -4);
    point.x = 100;
    point.y = -200;
    EXPECT_EQ(std::get<0>(fields).value(), 100);
    EXPECT_EQ(std::get<1>(fields).value(), -200);
    EXPECT_EQ(&std::get<0>(fields).value(), &point.x);
}

TEST(ClassFieldsTest, MotionEventDataFieldsInOrderReadingLiveValues) {
    zel::MotionEventData data{{1, 2}, {300, 400}};
    auto fields = common::meta::classFields(data);
    static_assert(std::tuple_size_v<decltype(fields)> == 2);
    static_assert(std::is_same_v<decltype(std::get<1>(fields).value()), const zel::Point2&>);
    EXPECT_EQ(namesOf(fields), (Names{"offset", "screenPoint"}));
    EXPECT_EQ(std::get<0>(fields).value().x, 1);
    EXPECT_EQ(std::get<0>(fields).value().y, 2);
    EXPECT_EQ(std::get<1>(fields).value().x, 300);
    data.screenPoint.y = 7;
    EXPECT_EQ(std::get<1>(fields).value().y, 7);

    // Nested records reflect in their turn.
    auto nested = common::meta::classFields(std::get<1>(fields).value());
    EXPECT_EQ(namesOf(nested), (Names{"x", "y"}));
    EXPECT_EQ(std::get<1>(nested).value(), 7);
}

TEST(ClassFieldsTest, ButtonsEventDataFieldsInOrderReadingLiveValues) {
    zel::ButtonsEventData data;
    auto fields = common::meta::classFields(data);
    static_assert(std::tuple_size_v<decltype(fields)> == 3);
    static_assert(std::is_same_v<decltype(std::get<2>(fields).value()), const zel::ButtonEvent&>);
    EXPECT_EQ(namesOf(fields), (Names{"left", "middle", "right"}));
    EXPECT_EQ(std::get<0>(fields).value(), zel::ButtonEvent::None);
    data.left = zel::ButtonEvent::Pressed;
    data.right = zel::ButtonEvent::Released;
    EXPECT_EQ(std::get<0>(fields).value(), zel::ButtonEvent::Pressed);
    EXPECT_EQ(std::get<1>(fields).value(), zel::ButtonEvent::None);
    EXPECT_EQ(std::get<2>(fields).value(), zel::ButtonEvent::Released);
}

TEST(ClassFieldsTest, EnumerationsKeepTheirNumbers) {
    static_assert(std::is_same_v<std::underlying_type_t<zel::ButtonEvent>, int32_t>);
    static_assert(static_cast<int>(zel::ButtonEvent::None) == 0);
    static_assert(static_cast<int>(zel::ButtonEvent::Released) == 1);
    static_assert(static_cast<int>(zel::ButtonEvent::Pressed) == 2);
    static_assert(static_cast<int>(zel::MouseButton::Left) == 0);
    static_assert(static_cast<int>(zel::MouseButton::Middle) == 1);
    static_assert(static_cast<int>(zel::MouseButton::Right) == 2);
    SUCCEED();
}

TEST(ClassFieldsTest, RecordWithoutFieldsGivesNone) {
    Root root;
    auto fields = common::meta::classFields(root);
    static_assert(std::tuple_size_v<decltype(fields)> == 0);
    SUCCEED();
}

// ------------------------------------------------------------------------------------------------
// Reading an unbound field

struct HandlerStop : std::runtime_error {
    using std::runtime_error::runtime_error;
};

TEST(FieldInfoTest, UnboundFieldReportsAndTheHandlerDecidesWhatHappens) {
    struct Seen {
        std::string function, file, expression, message;
        bool reservedIsNull = false;
        bool hasLine = false;
    };
    std::vector<Seen> seen;
    common::diagnostics::RuntimeCheck::setFailureHandler(common::diagnostics::FailureHandler::makeUnique(
        [&seen](common::diagnostics::SourceInfo const& source, char const* reserved, char const* expression,
                char const* message) {
            seen.push_back(Seen{std::string(source.function), std::string(source.file), expression, message,
                                reserved == nullptr, source.line.has_value()});
            // The check would go on to read through the null pointer; stop it here instead.
            throw HandlerStop("stop");
        }));

    common::meta::FieldInfo<int32_t> unbound{"x", nullptr};
    EXPECT_EQ(unbound.name(), "x");
    EXPECT_THROW((void)unbound.value(), HandlerStop);
    common::diagnostics::RuntimeCheckInternal::instance().removeFailureHandler(nullptr);

    ASSERT_EQ(seen.size(), 1u);
    EXPECT_EQ(seen[0].expression, "m_value != nullptr");
    EXPECT_EQ(seen[0].message, "Attempt to access filed of uninitialized instance");
    EXPECT_EQ(seen[0].function, "value");
    EXPECT_EQ(seen[0].file, "../common/include/common/meta/classinfo");
    EXPECT_TRUE(seen[0].reservedIsNull);
    EXPECT_TRUE(seen[0].hasLine);
}

TEST(FieldInfoTest, BoundFieldReportsNothing) {
    int count = 0;
    common::diagnostics::RuntimeCheck::setFailureHandler(common::diagnostics::FailureHandler::makeUnique(
        [&count](common::diagnostics::SourceInfo const&, char const*, char const*, char const*) { ++count; }));
    int32_t value = 5;
    common::meta::FieldInfo<int32_t> bound = common::meta::createFieldInfo("v", &value);
    bound.value() = 6;
    EXPECT_EQ(value, 6);
    common::diagnostics::RuntimeCheckInternal::instance().removeFailureHandler(nullptr);
    EXPECT_EQ(count, 0);
}

}  // namespace
