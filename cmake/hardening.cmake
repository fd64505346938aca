# How programs and libraries are hardened, in every kind of build. A packager's own choice in CXXFLAGS is kept.
include(CheckCXXCompilerFlag)
include(CheckPIESupported)
check_pie_supported()
string(TOUPPER "${CMAKE_BUILD_TYPE}" build_type)
set(given_flags "${CMAKE_CXX_FLAGS} ${CMAKE_CXX_FLAGS_${build_type}}")

function(natagent_harden flag family)
  string(MAKE_C_IDENTIFIER "NATAGENT_HAVE${flag}" known)
  check_cxx_compiler_flag(${flag} ${known})
  if(${known} AND NOT given_flags MATCHES "${family}")
    target_compile_options(natagent_options INTERFACE ${flag})
  endif()
endfunction()
natagent_harden(-fstack-protector-strong "stack-protector")
natagent_harden(-fstack-clash-protection "stack-clash-protection")

# The checked functions of the C library need the optimiser. They would hide errors from the sanitizers.
string(REGEX MATCHALL "(^| )-O[^ ]*" levels "${given_flags}")
list(POP_BACK levels level)
if(level AND NOT level MATCHES "-O0$" AND NOT NATAGENT_SANITIZE AND NOT given_flags MATCHES "_FORTIFY_SOURCE")
  target_compile_options(natagent_options INTERFACE -U_FORTIFY_SOURCE -D_FORTIFY_SOURCE=2)
endif()

# Every symbol is bound at the start, so that the tables of addresses become read-only. dlclose of libnatagent needs it too.
target_link_options(natagent_options INTERFACE -Wl,-z,relro -Wl,-z,now)
