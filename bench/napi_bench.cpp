// zelbench_napi.node: the reference for the call benchmarks, the same operations as the "bench" component of
// zelbench.node written with Node-API through node-addon-api, plus the C heap's in-use byte count for the
// memory figures.
//
//   noop()                       a plain function that does nothing
//   new Bench()                  an object-wrapped native object with the methods:
//     noop()                       does nothing
//     takeRecord(record)           reads a MotionEventData-shaped object
//     recordSum()                  a checksum of the records taken so far
//     setMotionCallback(fn)        keeps `fn` (null or undefined clears it)
//     deliverMotion(n)             calls the kept function n times, each with a fresh MotionEventData-shaped object
//   mallocInUse()                mallinfo2().uordblks: bytes handed out by malloc and not yet freed
#include <malloc.h>
#include <napi.h>

#include <cstdint>

namespace {

void noop(const Napi::CallbackInfo&) {}

Napi::Value mallocInUse(const Napi::CallbackInfo& info) {
    return Napi::Number::New(info.Env(), static_cast<double>(mallinfo2().uordblks));
}

int32_t intProperty(const Napi::Object& object, const char* name) {
    Napi::Value value = object.Get(name);
    return value.IsUndefined() ? 0 : value.ToNumber().Int32Value();
}

Napi::Object point(Napi::Env env, int32_t x, int32_t y) {
    Napi::Object object = Napi::Object::New(env);
    object.Set("x", Napi::Number::New(env, x));
    object.Set("y", Napi::Number::New(env, y));
    return object;
}

class Bench : public Napi::ObjectWrap<Bench> {
public:
    static Napi::Function define(Napi::Env env) {
        return DefineClass(env, "Bench",
                           {InstanceMethod<&Bench::noop>("noop"), InstanceMethod<&Bench::takeRecord>("takeRecord"),
                            InstanceMethod<&Bench::recordSum>("recordSum"),
                            InstanceMethod<&Bench::setMotionCallback>("setMotionCallback"),
                            InstanceMethod<&Bench::deliverMotion>("deliverMotion")});
    }

    explicit Bench(const Napi::CallbackInfo& info) : Napi::ObjectWrap<Bench>(info) {}

private:
    void noop(const Napi::CallbackInfo&) {}

    void takeRecord(const Napi::CallbackInfo& info) {
        if (info.Length() < 1)
            throw Napi::Error::New(info.Env(), "Expected (1) arguments, but only (0)");
        if (!info[0].IsObject())
            return;
        Napi::Object record = info[0].As<Napi::Object>();
        Napi::Value offset = record.Get("offset");
        Napi::Value screenPoint = record.Get("screenPoint");
        if (offset.IsObject())
            m_sum += int64_t(intProperty(offset.As<Napi::Object>(), "x")) + intProperty(offset.As<Napi::Object>(), "y");
        if (screenPoint.IsObject())
            m_sum += int64_t(intProperty(screenPoint.As<Napi::Object>(), "x")) +
                     intProperty(screenPoint.As<Napi::Object>(), "y");
    }

    Napi::Value recordSum(const Napi::CallbackInfo& info) {
        return Napi::Number::New(info.Env(), static_cast<int32_t>(m_sum));
    }

    void setMotionCallback(const Napi::CallbackInfo& info) {
        if (info.Length() < 1 || info[0].IsNull() || info[0].IsUndefined())
            m_callback.Reset();
        else
            m_callback = Napi::Persistent(info[0].As<Napi::Function>());
    }

    void deliverMotion(const Napi::CallbackInfo& info) {
        Napi::Env env = info.Env();
        const int32_t count = info.Length() > 0 ? info[0].ToNumber().Int32Value() : 0;
        if (m_callback.IsEmpty())
            return;
        for (int32_t i = 0; i < count; ++i) {
            Napi::HandleScope scope(env);
            Napi::Object record = Napi::Object::New(env);
            record.Set("offset", point(env, 1, -1));
            record.Set("screenPoint", point(env, i, 512));
            m_callback.Call({record});
        }
    }

    int64_t m_sum = 0;
    Napi::FunctionReference m_callback;
};

Napi::Object init(Napi::Env env, Napi::Object exports) {
    exports.Set("noop", Napi::Function::New<noop>(env, "noop"));
    exports.Set("mallocInUse", Napi::Function::New<mallocInUse>(env, "mallocInUse"));
    exports.Set("Bench", Bench::define(env));
    return exports;
}

}  // namespace

NODE_API_MODULE(zelbench_napi, init)
