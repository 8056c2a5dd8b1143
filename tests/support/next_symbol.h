// For a program that stands in front of a service: the definition behind its own.
#ifndef XEL_TESTS_SUPPORT_NEXT_SYMBOL_H
#define XEL_TESTS_SUPPORT_NEXT_SYMBOL_H

#include <dlfcn.h>

namespace xeltest
{

template <typename Function>
Function NextSymbol(const char* name)
{
    return reinterpret_cast<Function>(dlsym(RTLD_NEXT, name));
}

} // namespace xeltest

#endif // XEL_TESTS_SUPPORT_NEXT_SYMBOL_H
