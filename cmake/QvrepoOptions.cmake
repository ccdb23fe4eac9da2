# What every target of this project is compiled and linked with: language level, warnings, hardening, sanitizers.
# Targets take it by linking qv_options privately, so a build that contains this project keeps its own flags.

include(CheckPIESupported)
check_pie_supported(LANGUAGES CXX)

add_library(qv_options INTERFACE)
target_compile_features(qv_options INTERFACE cxx_std_17)
target_compile_options(qv_options INTERFACE -Wall -Wextra -Wpedantic -Wshadow -Wconversion)
if(QVREPO_WERROR)
  target_compile_options(qv_options INTERFACE -Werror)
endif()

# Two builds of the same sources give the same bytes, in whichever directory.
target_compile_options(qv_options INTERFACE -ffile-prefix-map=${PROJECT_SOURCE_DIR}=.
                                            -ffile-prefix-map=${PROJECT_BINARY_DIR}=build)

target_compile_definitions(qv_options INTERFACE _FILE_OFFSET_BITS=64)
target_compile_options(qv_options INTERFACE -fstack-protector-strong -fstack-clash-protection -fcf-protection
                                            -Wformat -Werror=format-security)
target_link_options(qv_options INTERFACE LINKER:-z,relro LINKER:-z,now LINKER:-z,noexecstack LINKER:--as-needed)

if(QVREPO_SANITIZE)
  target_compile_options(qv_options INTERFACE -fsanitize=${QVREPO_SANITIZE} -fno-sanitize-recover=all
                                              -fno-omit-frame-pointer)
  target_link_options(qv_options INTERFACE -fsanitize=${QVREPO_SANITIZE})
  # With sanitizers GCC 12 takes its own <regex> for uninitialised.
  target_compile_options(qv_options INTERFACE $<$<CXX_COMPILER_ID:GNU>:-Wno-maybe-uninitialized>)
else()
  # The fortified functions need the optimiser.
  target_compile_options(qv_options INTERFACE $<$<NOT:$<CONFIG:Debug>>:-U_FORTIFY_SOURCE>
                                              $<$<NOT:$<CONFIG:Debug>>:-D_FORTIFY_SOURCE=2>)
endif()

if(QVREPO_COVERAGE)
  # The counters of the service's threads would be lost in each other without atomic updates.
  target_compile_options(qv_options INTERFACE --coverage -fprofile-update=atomic)
  target_compile_definitions(qv_options INTERFACE QVREPO_COVERAGE)
  target_link_options(qv_options INTERFACE --coverage)
endif()

# Without a sanitizer's runtime, nothing would take what the instrumented code counts.
if(QVREPO_FUZZ AND NOT (CMAKE_CXX_COMPILER_ID STREQUAL Clang AND QVREPO_SANITIZE))
  message(FATAL_ERROR "QVREPO_FUZZ needs Clang and QVREPO_SANITIZE")
endif()

# qv_library(NAME SOURCES...): a static library of this project; its headers are named from the repository's root.
function(qv_library name)
  add_library(${name} STATIC ${ARGN})
  set_target_properties(${name} PROPERTIES POSITION_INDEPENDENT_CODE ON)
  target_include_directories(${name} PUBLIC ${PROJECT_SOURCE_DIR})
  target_compile_features(${name} PUBLIC cxx_std_17)
  target_link_libraries(${name} PRIVATE qv_options)
  if(QVREPO_FUZZ)
    # Tells the fuzzers which code their inputs reach. Other programs link it as well, and pay a few per cent.
    target_compile_options(${name} PRIVATE -fsanitize=fuzzer-no-link)
  endif()
endfunction()

# qv_program(NAME SOURCES...): a program of this project, position independent.
function(qv_program name)
  add_executable(${name} ${ARGN})
  set_target_properties(${name} PROPERTIES POSITION_INDEPENDENT_CODE ON
                                           RUNTIME_OUTPUT_DIRECTORY ${PROJECT_BINARY_DIR}/bin)
  target_include_directories(${name} PRIVATE ${PROJECT_SOURCE_DIR})
  target_link_libraries(${name} PRIVATE qv_options)
endfunction()
