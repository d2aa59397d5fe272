// Typed callbacks that can be held by rc_ptr, queued, handed to another thread and called later.
//
// Functor0<R>, Functor1<R, A> and Functor2<R, A, B> each hold the delegate classes of one signature, with 0, 1 and 2
// arguments;
// FunctorN<...>::Type is a thin holder of one delegate, empty by default. Arguments go by value, so that an rc_ptr
// argument keeps its object for the time of the call. A delegate on a method does not own the method's object:
// the owner of the delegate sees to it that the object lives longer. Calling an empty holder is a programming error.
// An exception of the target passes through unchanged.
#ifndef KESTRUN_RUNTIME_BASE_DELEGATE_H_
#define KESTRUN_RUNTIME_BASE_DELEGATE_H_

#include <utility>

#include "runtime/base/rc_ptr.h"

namespace kestrun {

namespace detail {

// The type of the N-th argument, void where there is none.
template <int N, class... Args>
struct ArgumentAt {
  using Type = void;
};
template <class A, class... Rest>
struct ArgumentAt<0, A, Rest...> {
  using Type = A;
};
template <int N, class A, class... Rest>
requires(N > 0) struct ArgumentAt<N, A, Rest...> : ArgumentAt<N - 1, Rest...> {
};

template <class R, class... Args>
struct FunctorScope {
  class _DelegateBase : public rc_base {
   public:
    using Result = R;
    using FirstArgument = typename ArgumentAt<0, Args...>::Type;
    using SecondArgument = typename ArgumentAt<1, Args...>::Type;

    virtual R operator()(Args... args) = 0;
  };

  class _FuncDelegate : public _DelegateBase {
   public:
    using Function = R (*)(Args...);
    explicit _FuncDelegate(Function function) : function_(function) {}
    R operator()(Args... args) override { return function_(std::move(args)...); }

   private:
    Function function_;
  };

  template <class T>
  class _MethodDelegate : public _DelegateBase {
   public:
    using Method = R (T::*)(Args...);
    _MethodDelegate(Method method, T* object) : method_(method), object_(object) {}
    R operator()(Args... args) override { return (object_->*method_)(std::move(args)...); }

   private:
    Method method_;
    T* object_;
  };

  class Type {
   public:
    Type() = default;
    Type(rc_ptr<_DelegateBase> delegate) : delegate_(std::move(delegate)) {}
    Type(_DelegateBase* delegate) : delegate_(delegate) {}
    template <class D>
    Type(const rc_ptr<D>& delegate) : delegate_(delegate) {}

    R operator()(Args... args) const { return (*delegate_)(std::move(args)...); }
    explicit operator bool() const { return static_cast<bool>(delegate_); }
    const rc_ptr<_DelegateBase>& Get() const { return delegate_; }
    void Reset() { delegate_.Reset(); }
    friend bool operator<(const Type& left, const Type& right) { return left.delegate_ < right.delegate_; }

   private:
    rc_ptr<_DelegateBase> delegate_;
  };
};

}  // namespace detail

template <class R>
struct Functor0 : detail::FunctorScope<R> {};
template <class R, class A>
struct Functor1 : detail::FunctorScope<R, A> {};
template <class R, class A, class B>
struct Functor2 : detail::FunctorScope<R, A, B> {};

// A call without arguments: the target, and a copy of the one argument that it is called with. `Target` is the
// _DelegateBase of a Functor1.
template <class Target>
class Closure0 : public detail::FunctorScope<typename Target::Result>::_DelegateBase {
 public:
  using Argument = typename Target::FirstArgument;
  Closure0(rc_ptr<Target> target, Argument argument) : target_(std::move(target)), argument_(std::move(argument)) {}
  typename Target::Result operator()() override { return (*target_)(argument_); }

 private:
  rc_ptr<Target> target_;
  Argument argument_;
};

// The same with two bound arguments and the _DelegateBase of a Functor2.
template <class Target>
class Closure2 : public detail::FunctorScope<typename Target::Result>::_DelegateBase {
 public:
  using First = typename Target::FirstArgument;
  using Second = typename Target::SecondArgument;
  Closure2(rc_ptr<Target> target, First first, Second second)
      : target_(std::move(target)), first_(std::move(first)), second_(std::move(second)) {}
  typename Target::Result operator()() override { return (*target_)(first_, second_); }

 private:
  rc_ptr<Target> target_;
  First first_;
  Second second_;
};

// A delegate on a free function. Assignable to the Type holder of its FunctorN.
template <class R, class... Args>
rc_ptr<typename detail::FunctorScope<R, Args...>::_DelegateBase> MakeDelegate(R (*function)(Args...)) {
  return new typename detail::FunctorScope<R, Args...>::_FuncDelegate(function);
}

// A delegate on a method of an object that outlives it.
template <class R, class T, class... Args>
rc_ptr<typename detail::FunctorScope<R, Args...>::_DelegateBase> MakeDelegate(R (T::*method)(Args...), T* object) {
  return new typename detail::FunctorScope<R, Args...>::template _MethodDelegate<T>(method, object);
}

// The delegate with its arguments bound: a Functor0 delegate, ready to be queued or given to a thread.
template <class D, class A>
auto MakeClosure(const rc_ptr<D>& delegate, A argument) {
  return rc_ptr<typename detail::FunctorScope<typename D::Result>::_DelegateBase>(
      new Closure0<D>(delegate, std::move(argument)));
}
template <class D, class A, class B>
auto MakeClosure(const rc_ptr<D>& delegate, A first, B second) {
  return rc_ptr<typename detail::FunctorScope<typename D::Result>::_DelegateBase>(
      new Closure2<D>(delegate, std::move(first), std::move(second)));
}

}  // namespace kestrun

#endif  // KESTRUN_RUNTIME_BASE_DELEGATE_H_
