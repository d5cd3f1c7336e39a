// What every public header needs: the marks of exported names and of steps that are not.
#ifndef DNNVAD_VAD_API_H
#define DNNVAD_VAD_API_H

// The library is built with hidden visibility. Every class, function and table that hosts may use
// carries this mark; helpers of the library's own do not.
#define DNNVAD_API __attribute__((visibility("default")))

// Takes a private step of an exported class out again.
#define DNNVAD_LOCAL __attribute__((visibility("hidden")))

#endif
