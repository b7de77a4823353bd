// The "wrappers" test component: object-model results wrapped for script, with and without weak tracking,
// counting constructions, disposals and destructions of the wrapped objects.
#include <v8.h>

#include <string>
#include <tuple>
#include <utility>

#include "bridge/component.h"
#include "common/com/comclass.h"
#include "common/com/comptr.h"
#include "common/diagnostics/log.h"
#include "common/meta/classinfo.h"
#include "common/v8binding/v8binding.h"
#include "tests/addon/testkit.h"

namespace zel::testkit {

/// Life events of wrapped objects, and whether a weak callback was running on the thread when they happened.
struct WrapperStats {
    int32_t gadgetsConstructed = 0;
    int32_t gadgetsDisposed = 0;
    int32_t gadgetsDestroyed = 0;
    int32_t disposedInDestructor = 0;   ///< disposals that saw `inDestructor()` true
    int32_t destroyedInDestructor = 0;  ///< destructions that saw `inDestructor()` true
    int32_t trinketsConstructed = 0;
    int32_t trinketsDestroyed = 0;

    struct ClassAttributes__ {
        using Class = WrapperStats;
        static constexpr auto attributes() {
            return std::make_tuple(common::meta::ClassFields{[](auto* self) {
                using common::meta::createFieldInfo;
                return std::make_tuple(createFieldInfo("gadgetsConstructed", &self->gadgetsConstructed),
                                       createFieldInfo("gadgetsDisposed", &self->gadgetsDisposed),
                                       createFieldInfo("gadgetsDestroyed", &self->gadgetsDestroyed),
                                       createFieldInfo("disposedInDestructor", &self->disposedInDestructor),
                                       createFieldInfo("destroyedInDestructor", &self->destroyedInDestructor),
                                       createFieldInfo("trinketsConstructed", &self->trinketsConstructed),
                                       createFieldInfo("trinketsDestroyed", &self->trinketsDestroyed));
            }});
        }
    };
};

namespace {
WrapperStats g_stats;
int32_t g_nextSerial = 1;
std::string g_disposeMessage;  // logged at level Info by every disposal when not empty
}  // namespace

/// A wrapped object that script sees through its reflected methods.
struct IGadget : public virtual IRefCounted {
    virtual int32_t serial() = 0;
    virtual bool disposed() = 0;

    struct ClassAttributes__ {
        using Class = IGadget;
        static constexpr auto attributes() {
            return std::make_tuple(
                common::meta::ClassMethods{common::meta::createMethodInfo<&IGadget::serial>("serial"),
                                           common::meta::createMethodInfo<&IGadget::disposed>("disposed")});
        }
    };
};

/// Released by its wrapper: disposed and destroyed when the engine collects the wrapper.
class Gadget final : public IGadget, public common::js::V8WeakReferenceHolder, public common::Disposable {
    COMMON_COM_CLASS(Gadget, common::SingleThreadRC, IGadget, common::js::V8WeakReferenceHolder, common::Disposable)

    Gadget() : m_serial(g_nextSerial++) { ++g_stats.gadgetsConstructed; }
    ~Gadget() override {
        ++g_stats.gadgetsDestroyed;
        if (common::js::V8WeakReferenceHolder::inDestructor())
            ++g_stats.destroyedInDestructor;
    }

    int32_t serial() override { return m_serial; }
    bool disposed() override { return m_disposed; }
    void dispose() override {
        m_disposed = true;
        ++g_stats.gadgetsDisposed;
        if (common::js::V8WeakReferenceHolder::inDestructor())
            ++g_stats.disposedInDestructor;
        if (!g_disposeMessage.empty())
            COMMON_LOG_AT(common::diagnostics::Log::Level::Info, kTestkitFile, 84, g_disposeMessage);
    }

private:
    int32_t m_serial;
    bool m_disposed = false;
};

/// A wrapped object whose class offers no weak tracking.
struct ITrinket : public virtual IRefCounted {
    virtual int32_t serial() = 0;

    struct ClassAttributes__ {
        using Class = ITrinket;
        static constexpr auto attributes() {
            return std::make_tuple(
                common::meta::ClassMethods{common::meta::createMethodInfo<&ITrinket::serial>("serial")});
        }
    };
};

/// Never released by its wrapper: the wrapper's reference is kept for ever.
class Trinket final : public ITrinket {
    COMMON_COM_CLASS(Trinket, common::SingleThreadRC, ITrinket)

    Trinket() : m_serial(g_nextSerial++) { ++g_stats.trinketsConstructed; }
    ~Trinket() override { ++g_stats.trinketsDestroyed; }

    int32_t serial() override { return m_serial; }

private:
    int32_t m_serial;
};

/// Hands out wrapped objects.
class WrappersComponent final : public Component, private Tracked {
    COMMON_COM_CLASS(WrappersComponent, common::SingleThreadRC, Component)

    WrappersComponent(v8::Isolate* isolate, v8::Local<v8::Object> object) {
        common::js::bindToObject<WrappersComponent>(isolate, object);
    }

    /// A new gadget; its wrapper holds the only reference.
    common::ComPtr<IGadget> makeGadget() { return common::com::createInstance<Gadget, IGadget>(); }
    /// An empty reference: script gets undefined.
    common::ComPtr<IGadget> emptyGadget() { return nullptr; }
    /// A new trinket; its wrapper's reference is never released.
    common::ComPtr<ITrinket> makeTrinket() { return common::com::createInstance<Trinket, ITrinket>(); }
    /// The component's shared gadget (created on first use): every call wraps the same native object again.
    common::ComPtr<IGadget> sharedGadget() {
        if (!m_shared)
            m_shared = common::com::createInstance<Gadget, IGadget>();
        return m_shared;
    }
    /// Drops the component's own reference to the shared gadget.
    void dropSharedGadget() { m_shared.release(); }

    static WrapperStats stats() { return g_stats; }
    /// Every gadget disposal then writes `text` to the log at level Info (nothing when empty).
    static void setDisposeMessage(std::string text) { g_disposeMessage = std::move(text); }
    /// Whether a weak callback of the binding is running on this thread.
    static bool inDestructor() { return common::js::V8WeakReferenceHolder::inDestructor(); }

    struct ClassAttributes__ {
        using Class = WrappersComponent;
        static constexpr auto attributes() {
            using common::meta::createMethodInfo;
            return std::make_tuple(
                common::meta::ClassBase<Component>{},
                common::meta::ClassMethods{createMethodInfo<&WrappersComponent::makeGadget>("makeGadget"),
                                           createMethodInfo<&WrappersComponent::emptyGadget>("emptyGadget"),
                                           createMethodInfo<&WrappersComponent::makeTrinket>("makeTrinket"),
                                           createMethodInfo<&WrappersComponent::sharedGadget>("sharedGadget"),
                                           createMethodInfo<&WrappersComponent::dropSharedGadget>("dropSharedGadget"),
                                           createMethodInfo<&WrappersComponent::stats>("stats"),
                                           createMethodInfo<&WrappersComponent::setDisposeMessage>("setDisposeMessage"),
                                           createMethodInfo<&WrappersComponent::inDestructor>("inDestructor")});
        }
    };

private:
    common::ComPtr<IGadget> m_shared;
};

ZEL_REGISTER_COMPONENT("wrappers", WrappersComponent);

}  // namespace zel::testkit
