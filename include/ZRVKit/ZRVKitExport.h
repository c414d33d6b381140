#pragma once
// Marks what the shared library exports: the classes and functions declared in these headers. Everything
// else is built with hidden visibility, so a consumer cannot come to depend on the library's internals.

#define ZRVKIT_EXPORT __attribute__((visibility("default")))
