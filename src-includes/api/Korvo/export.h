#pragma once

/// The library is built with hidden visibility; this marks what it exports.
#define KORVO_API __attribute__((visibility("default")))
