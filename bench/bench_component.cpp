// The "bench" component of the benchmark module zelbench.node: the cheapest bound calls the binding can make,
// used to time its call overhead and the delivery of one pointer record to a script callback.
//
//   bench.noop()                      a bound member function that does nothing
//   bench.freeNoop()                  a bound free function that does nothing
//   bench.takeRecord(record)          converts a MotionEventData object from script
//   bench.setMotionCallback(fn)       keeps `fn` as a native callable (null or undefined clears it)
//   bench.deliverMotion(n)            calls the kept callable n times, each with a fresh MotionEventData record,
//                                     the same way the pointer capture hands records to script
//   bench.recordSum()                 a checksum of the records taken so far (so none is optimised away)
#include <v8.h>

#include <cstdint>
#include <memory>
#include <tuple>
#include <utility>

#include "bridge/component.h"
#include "bridge/pointerevents.h"
#include "common/com/comclass.h"
#include "common/meta/classinfo.h"
#include "common/utils/functor.h"
#include "common/v8binding/v8binding.h"

namespace zel::bench {

void freeNoop() {}

class BenchComponent final : public Component {
    COMMON_COM_CLASS(BenchComponent, common::SingleThreadRC, Component)

    using MotionCallback = common::FunctorClass<false, void, common::TypeList<MotionEventData>>;

    BenchComponent(v8::Isolate* isolate, v8::Local<v8::Object> object) {
        common::js::bindToObject<BenchComponent>(isolate, object);
        common::js::setFunctionProperty<&freeNoop>(isolate, object, "freeNoop");
    }

    void noop() {}

    void takeRecord(MotionEventData record) {
        m_sum += int64_t(record.offset.x) + record.offset.y + record.screenPoint.x + record.screenPoint.y;
    }

    int recordSum() const { return static_cast<int>(m_sum); }

    void setMotionCallback(std::unique_ptr<MotionCallback> callback) { m_callback = std::move(callback); }

    void deliverMotion(int count) {
        if (!m_callback)
            return;
        for (int i = 0; i < count; ++i)
            m_callback->invoke(MotionEventData{Point2{1, -1}, Point2{i, 512}});
    }

    struct ClassAttributes__ {
        using Class = BenchComponent;
        static constexpr auto attributes() {
            using common::meta::createMethodInfo;
            return std::make_tuple(
                common::meta::ClassBase<Component>{},
                common::meta::ClassMethods{createMethodInfo<&BenchComponent::noop>("noop"),
                                           createMethodInfo<&BenchComponent::takeRecord>("takeRecord"),
                                           createMethodInfo<&BenchComponent::recordSum>("recordSum"),
                                           createMethodInfo<&BenchComponent::setMotionCallback>("setMotionCallback"),
                                           createMethodInfo<&BenchComponent::deliverMotion>("deliverMotion")});
        }
    };

private:
    int64_t m_sum = 0;
    std::unique_ptr<MotionCallback> m_callback;
};

ZEL_REGISTER_COMPONENT("bench", BenchComponent);

}  // namespace zel::bench
