# Host-wide settings for the simulation build.
#
# -fshort-wchar everywhere on the host: WCHAR is wchar_t and two bytes wide, as
# on Windows, so driver code keeps its L"..." literals and UNICODE_STRING keeps
# the Windows x64 layout. The price: no host code may call the C library's or
# the standard library's wide-character functions (they assume four bytes);
# use char16_t / std::u16string in the simulation instead.
# Pool tags are written as multi-character literals (e.g. 'ddVK') in driver code, as
# WDK drivers do; GCC warns about those by default.
add_compile_options(-fshort-wchar -Wall -Wextra -Wno-unused-parameter -Wno-multichar)
if(KV_SANITIZE)
  add_compile_options(-fsanitize=${KV_SANITIZE} -fno-omit-frame-pointer -fno-sanitize-recover=all)
  add_link_options(-fsanitize=${KV_SANITIZE})
endif()
