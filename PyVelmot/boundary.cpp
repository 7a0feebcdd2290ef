#include "boundary.h"

namespace PyVelmot {

void set_error_from_current_exception() {
  try {
    throw;
  } catch (const Velmot::DataIOException& e) {
    const std::string text =
        "error (line " + std::to_string(e.get_line_no()) + "): " + e.get_message() + "\n";
    PyErr_SetString(PyExc_RuntimeError, text.c_str());
  } catch (const Velmot::Exception& e) {
    const std::string text = "error: " + e.get_message() + "\n";
    PyErr_SetString(PyExc_RuntimeError, text.c_str());
  } catch (const ModuleError& message) {
    PyErr_SetString(PyExc_RuntimeError, message.c_str());
  } catch (const char* message) {
    PyErr_SetString(PyExc_RuntimeError, message);
  } catch (const std::exception& e) {
    PyErr_SetString(PyExc_RuntimeError, e.what());
  } catch (...) {
    // Nothing in the library throws anything else; a clear error still
    // beats letting an exception cross into the interpreter.
    PyErr_SetString(PyExc_RuntimeError, "unexpected C++ exception");
  }
}

}  // namespace PyVelmot
