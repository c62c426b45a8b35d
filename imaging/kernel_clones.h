// Marks a hot loop for a second, AVX2 build on x86-64, picked at load time: the loops are written
// for the compiler to vectorise, and the baseline (SSE2) build runs them at about half the speed.
// Private to imaging/. Not under ThreadSanitizer: its run-time is not up yet when the loader
// resolves which copy to use, and the program dies before main. Nor under clang, which does not
// clone templates (its builds are checks and fuzzing, not the product).
#pragma once

#if defined(__x86_64__) && defined(__GNUC__) && !defined(__clang__) && !defined(__SANITIZE_THREAD__)
#define LUMETRA_KERNEL_CLONES [[gnu::target_clones("avx2", "default")]]
// Hand-written AVX2 loops, chosen at run time where the processor has AVX2.
#define LUMETRA_AVX2_DEMOSAIC 1
#else
#define LUMETRA_KERNEL_CLONES
#define LUMETRA_AVX2_DEMOSAIC 0
#endif
