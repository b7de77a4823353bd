// Weak tracking of script wrappers: the weak callback disposes and releases the wrapped native object.
#include "common/v8binding/v8binding.h"

#include <optional>

namespace common::js {
namespace {

constexpr const char* kSourceFile = "../common/v8binding/v8binding";

// The number of weak callbacks running on this thread, changed by `delta` when given.
int weakRefCallbackCounter(std::optional<int> delta = std::nullopt) {
    thread_local int counter = 0;
    if (delta)
        counter += *delta;
    COMMON_CHECK_AT(kSourceFile, 16, counter >= 0);
    return counter;
}

}  // namespace

void V8WeakReferenceHolder::trackWeakReference(v8::Isolate* isolate, v8::Local<v8::Object> obj) {
    COMMON_CHECK_AT(kSourceFile, 31, isolate);
    COMMON_CHECK_AT(kSourceFile, 32, !obj.IsEmpty());
    IRefCounted* rc = js_internal::getInternalFieldAs<IRefCounted>(obj, 0);
    COMMON_CHECK_AT(kSourceFile, 35, rc);
    m_weakRef.emplace(isolate, obj);
    m_weakRef->SetWeak(rc, &V8WeakReferenceHolder::weakCallback, v8::WeakCallbackType::kInternalFields);
}

bool V8WeakReferenceHolder::inDestructor() { return weakRefCallbackCounter() > 0; }

void V8WeakReferenceHolder::weakCallback(const v8::WeakCallbackInfo<IRefCounted>& info) {
    [&] {
        weakRefCallbackCounter(1);
        struct CounterGuard {
            ~CounterGuard() { weakRefCallbackCounter(-1); }
        } guard;
        ComPtr<IRefCounted> object{com::TakeOwnership<IRefCounted>(info.GetParameter())};
        if (auto* disposable = object->as<Disposable*>())
            disposable->dispose();
        auto* this_ = object->as<V8WeakReferenceHolder*>();
        COMMON_CHECK_AT(kSourceFile, 54, this_, "Expected V8WeakReferenceHolder API");
        if (!this_)
            return;
        COMMON_CHECK_AT(kSourceFile, 55, this_->m_weakRef);
        if (this_->m_weakRef && !this_->m_weakRef->IsEmpty())
            this_->m_weakRef->Reset();
        this_->m_weakRef.reset();
    }();
}

}  // namespace common::js
