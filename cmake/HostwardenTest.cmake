# hw_add_test(NAME name SOURCES ... LIBS ... [KERNEL]): a GoogleTest executable registered with
# CTest. Tests get HW_SOURCE_DIR and HW_BINARY_DIR so they can find fixtures and built helpers.
# KERNEL marks tests that change the kernel's audit rules: they never run at the same time. Tests
# carry the label "kernel" or "unit" (ctest -L unit runs what needs no kernel, auditd or root).
function(hw_add_test)
  cmake_parse_arguments(T "KERNEL" "NAME" "SOURCES;LIBS" ${ARGN})
  add_executable(${T_NAME} ${T_SOURCES})
  target_link_libraries(${T_NAME} PRIVATE ${T_LIBS} hw_test_support GTest::gtest GTest::gtest_main Threads::Threads)
  target_compile_definitions(${T_NAME} PRIVATE
    HW_SOURCE_DIR="${PROJECT_SOURCE_DIR}" HW_BINARY_DIR="${PROJECT_BINARY_DIR}")
  if(T_KERNEL)
    gtest_discover_tests(${T_NAME} DISCOVERY_TIMEOUT 60
      PROPERTIES TIMEOUT 600 RESOURCE_LOCK kernel_audit_rules LABELS kernel)
  else()
    gtest_discover_tests(${T_NAME} DISCOVERY_TIMEOUT 60 PROPERTIES TIMEOUT 300 LABELS unit)
  endif()
endfunction()
