#pragma once

/// A namespace with names to tell.
namespace Canary {

/// Has a page and a text.
void canaryTold();

void canaryUntold();

}  // namespace Canary
