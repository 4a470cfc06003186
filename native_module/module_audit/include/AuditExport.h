#pragma once

/// Marks a type or function that other agent code sees across the module's boundary. The module
/// is built with hidden visibility; these keep their type information and entry points visible.
#define HW_AUDIT_API __attribute__((visibility("default")))
