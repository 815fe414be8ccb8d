// Nothing is thrown across the C interface. Every exported call runs its body through guarded():
// an exception inside (an allocation failure, a platform mutex error) becomes the call's failure
// value instead of terminating the application.
#pragma once

namespace varnel {

template <typename Fallback, typename Body>
auto guarded(Fallback on_exception, Body&& body) noexcept -> decltype(body()) {
  try {
    return body();
  } catch (...) {
    return static_cast<decltype(body())>(on_exception);
  }
}

}  // namespace varnel
