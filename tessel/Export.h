// Visibility of the library's public classes and functions.
//
// libtessel.so is built with hidden visibility; every class and free function that a host
// process may use carries TESSEL_API, and nothing else leaves the library.
#pragma once

#define TESSEL_API __attribute__((visibility("default")))
