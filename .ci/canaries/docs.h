#pragma once

/// Does nothing.
/// \param canaryParameter is not there
void canary(int parameter);
