// init_pool and set_seed: rebuild the process-wide pool of 32 generators.

#include "entry_points.h"

#include <cstdint>
#include <string>

#include "boundary.h"
#include "text_argument.h"
#include "velmot/defs/random.h"

namespace PyVelmot {

PyObject* init_pool_wrap(PyObject*, PyObject* args) {
  PyObject* file_name = nullptr;
  if (!PyArg_ParseTuple(args, "O:init_pool", &file_name)) return nullptr;
  if (!is_text(file_name)) {
    PyErr_Format(PyExc_TypeError, "init_pool() argument 1 must be str or bytes, not %.200s",
                 Py_TYPE(file_name)->tp_name);
    return nullptr;
  }
  return guarded_call([&] {
    Velmot::init_pool(text_up_to_nul(file_name), 0);
    return Py_BuildValue("d", 0.0);
  });
}

PyObject* set_seed_wrap(PyObject*, PyObject* args) {
  long seed = 0;
  if (!PyArg_ParseTuple(args, "l:set_seed", &seed)) return nullptr;
  // Only the low 32 bits are a seed; 0 there means "seed from /dev/urandom".
  const int seed32 = static_cast<int>(static_cast<uint32_t>(static_cast<unsigned long>(seed)));
  return guarded_call([&] {
    Velmot::init_pool("", seed32);
    return Py_BuildValue("d", 0.0);
  });
}

}  // namespace PyVelmot
