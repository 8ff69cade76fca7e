// Spectral derivatives of a periodic energy grid.
#include "quovix-fft.hpp"
