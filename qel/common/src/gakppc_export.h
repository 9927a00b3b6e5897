#ifndef GAKPPC_EXPORT_H
#define GAKPPC_EXPORT_H

/// @file
/// What is visible of the shared library.

/// Marks the declarations that libgakppc exports; everything else in it is hidden.
#define GAKPPC_API __attribute__((visibility("default")))

/// Takes a private part of an exported class out again.
#define GAKPPC_LOCAL __attribute__((visibility("hidden")))

#endif
