/* Reports which exported functions are called through the tables of calls. */
#ifndef SUPPORT_CALLED_H
#define SUPPORT_CALLED_H

namespace sc_test {

using AnyFunction = void (*)();

/* Is called with each export before the export is called; null: not used. */
inline void (*on_call)(AnyFunction called) = nullptr;

template <auto F>
void tell_of_call() {
  if (on_call != nullptr) on_call(reinterpret_cast<AnyFunction>(F));
}

/* Noted<F>::call reports F, then calls it. */
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
