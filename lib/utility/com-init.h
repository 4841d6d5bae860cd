// COM initialisation of the calling thread: CoInitializeEx / CoUninitialize
// on Windows, a no-op that reports success on POSIX. Codes are HRESULT-style:
// non-negative is success. Every successful ComInitialize, S_FALSE (already
// initialised in the same mode) included, is balanced by one
// ComUninitialize on the same thread.
#ifndef TESSERA_LIB_UTILITY_COM_INIT_H_
#define TESSERA_LIB_UTILITY_COM_INIT_H_

#include <cstdint>

namespace tessera {
namespace utility {

int32_t ComInitialize(uint32_t coinit_flags);
void ComUninitialize();

// Flag values of CoInitializeEx, usable on every platform.
constexpr uint32_t kCoinitApartmentThreaded = 0x2;
constexpr uint32_t kCoinitDisableOle1Dde = 0x4;

}  // namespace utility
}  // namespace tessera

#endif  // TESSERA_LIB_UTILITY_COM_INIT_H_
