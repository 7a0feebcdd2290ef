#include "boundary.h"

#include <new>

namespace PyVelmot {

namespace {

// The error for a failed allocation: a RuntimeError like every library
// failure, and a MemoryError so that Python code can tell it apart. Made
// once, and not made a module attribute: the module holds its functions only.
PyObject* out_of_memory_error() {
  static PyObject* type = nullptr;
  if (type == nullptr) {
    PyObject* bases = PyTuple_Pack(2, PyExc_RuntimeError, PyExc_MemoryError);
    if (bases == nullptr) return PyExc_RuntimeError;
    type = PyErr_NewExceptionWithDoc("PyVelmot_wrap.OutOfMemoryError", "An allocation failed in the library.", bases,
                                     nullptr);
    Py_DECREF(bases);
    if (type == nullptr) {
      PyErr_Clear();
      return PyExc_RuntimeError;
    }
  }
  return type;
}

}  // namespace

void prepare_errors() { out_of_memory_error(); }

void set_error_from_current_exception() {
  try {
    throw;
  } catch (const Velmot::DataIOException& e) {
    const std::string text = "error (line " + std::to_string(e.get_line_no()) + "): " + e.get_message() + "\n";
    PyErr_SetString(PyExc_RuntimeError, text.c_str());
  } catch (const Velmot::Exception& e) {
    const std::string text = "error: " + e.get_message() + "\n";
    PyErr_SetString(PyExc_RuntimeError, text.c_str());
  } catch (const ModuleError& message) {
    PyErr_SetString(PyExc_RuntimeError, message.c_str());
  } catch (const char* message) {
    PyErr_SetString(PyExc_RuntimeError, message);
  } catch (const std::bad_alloc& e) {
    PyErr_SetString(out_of_memory_error(), e.what());
  } catch (const std::exception& e) {
    PyErr_SetString(PyExc_RuntimeError, e.what());
  } catch (...) {
    // Nothing in the library throws anything else; a clear error still
    // beats letting an exception cross into the interpreter.
    PyErr_SetString(PyExc_RuntimeError, "unexpected C++ exception");
  }
}

}  // namespace PyVelmot
