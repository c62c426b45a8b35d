// The options every program of an AddressSanitizer build starts with (asan_options.cpp). A
// program that needs more defines its own __asan_default_options and starts from these.
//
// intercept_tls_get_addr=0: LeakSanitizer tracks dynamic TLS blocks through its __tls_get_addr
// interceptor and guesses each block's bounds from a header laid out as glibc 2.19 did. Under
// Debian 12's glibc that guess reads heap bytes whenever a block of a module loaded with dlopen
// lands 16 bytes into a page, and the exit-time check may then scan a range that is not mapped and
// die with "Tracer caught signal 11" (the window tests, one run in tens). glibc now allocates those
// blocks with malloc and keeps them in the thread's DTV, so the leak check reaches them through
// the heap without the interceptor.
#pragma once

#define LUMETRA_ASAN_DEFAULT_OPTIONS "intercept_tls_get_addr=0"
