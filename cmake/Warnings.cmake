add_compile_options(-Wall -Wextra -Wpedantic -Wshadow=local -Wnon-virtual-dtor
                    -Wcast-align -Wformat=2 -Wimplicit-fallthrough)
if(ZARN_WARNINGS_AS_ERRORS)
  add_compile_options(-Werror)
endif()
