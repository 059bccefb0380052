// Placeholder: layout static_asserts (issue 2).
#pragma once
