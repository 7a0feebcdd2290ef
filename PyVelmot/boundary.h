#ifndef PYVELMOT_BOUNDARY_H
#define PYVELMOT_BOUNDARY_H

// The one place where library failures become Python errors. Every entry
// point runs its library work through guarded_call, which holds the GIL
// state for the call and tries the handlers in this order:
//   DataIOException  -> "error (line N): msg\n"
//   other Exception  -> "error: msg\n"
//   thrown string    -> the string itself
//   std::exception   -> its own description (for std::bad_alloc, raised
//                       as a RuntimeError that is also a MemoryError)
// The order matters: DataIOException derives from Exception.
//
// Module code reports its own failures by throwing a bare string
// (ModuleError), never a library exception.

#include "numpy_api.h"

#include <exception>
#include <string>

#include "velmot/defs/exception.h"

namespace PyVelmot {

typedef std::string ModuleError;

// Makes the error types at import: an allocation failure is a poor time
// to make one.
void prepare_errors();

// Composes the RuntimeError text for the exception being handled and sets
// it; must be called from inside a catch block.
void set_error_from_current_exception();

class GilState {
public:
  GilState() : state(PyGILState_Ensure()) {}
  ~GilState() { PyGILState_Release(state); }
  GilState(const GilState&) = delete;
  GilState& operator=(const GilState&) = delete;

private:
  PyGILState_STATE state;
};

// Runs body() (which returns a new reference or nullptr with an error set)
// and turns anything it throws into a RuntimeError and a null result.
template <class Body>
PyObject* guarded_call(Body&& body) noexcept {
  GilState gil;
  try {
    return body();
  } catch (...) {
    set_error_from_current_exception();
    return nullptr;
  }
}

}  // namespace PyVelmot

#endif
