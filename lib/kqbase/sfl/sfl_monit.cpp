// (placeholder: implemented by its owner)
#include "sfl_int.h"
