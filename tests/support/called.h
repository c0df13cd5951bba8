/* Which exported functions are called through the tables of calls, for those who want to know. */
#ifndef SUPPORT_CALLED_H
#define SUPPORT_CALLED_H

namespace sc_test {

using AnyFunction = void (*)();

/* Is told of each export before it is called; null: nobody is. */
inline void (*on_call)(AnyFunction called) = nullptr;

template <auto F>
void tell_of_call() {
  if (on_call != nullptr) on_call(reinterpret_cast<AnyFunction>(F));
}

/* Noted<F>::call calls F, and tells of it. */
template <auto F>
struct Noted;
template <class Result, class... Args, Result (*F)(Args...)>
struct Noted<F> {
  static Result call(Args... args) {
    tell_of_call<F>();
    return F(args...);
  }
};

}  // namespace sc_test

#endif
