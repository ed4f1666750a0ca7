// SPDX-License-Identifier: Apache-2.0
// VROCAM_API marks what the library exports. It is built with hidden visibility, so everything
// else it defines (helpers, template instantiations over its types) stays inside it and cannot be
// bound to another library's copy.
#pragma once

#define VROCAM_API __attribute__((visibility("default")))
