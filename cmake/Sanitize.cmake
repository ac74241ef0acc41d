# ZARN_SANITIZE selects one sanitizer build; an unknown value is an error rather
# than a silently unsanitized build.
if(ZARN_SANITIZE STREQUAL "none" OR ZARN_SANITIZE STREQUAL "")
  # nothing
elseif(ZARN_SANITIZE STREQUAL "address")
  # GCC's maybe-uninitialized analysis misfires on instrumented code of the C++
  # library (std::function inside std::regex, for one): both sanitizer builds
  # drop that warning; the normal build keeps it.
  add_compile_options(-fsanitize=address,undefined -fno-omit-frame-pointer -fno-sanitize-recover=undefined
                      $<$<CXX_COMPILER_ID:GNU>:-Wno-maybe-uninitialized>)
  add_link_options(-fsanitize=address,undefined)
elseif(ZARN_SANITIZE STREQUAL "thread")
  add_compile_options(-fsanitize=thread -fno-omit-frame-pointer $<$<CXX_COMPILER_ID:GNU>:-Wno-maybe-uninitialized>)
  add_link_options(-fsanitize=thread)
else()
  message(FATAL_ERROR "ZARN_SANITIZE must be none, address or thread (got '${ZARN_SANITIZE}')")
endif()
