# Fails when an object file carries a dynamic initializer section: the images have no runtime
# that would call global constructors, so every module-wide object must be constant-initialised.
foreach(obj IN LISTS OBJECTS)
  execute_process(COMMAND ${OBJDUMP} -h ${obj} OUTPUT_VARIABLE sections RESULT_VARIABLE rc)
  if(NOT rc EQUAL 0)
    message(FATAL_ERROR "cannot read ${obj}")
  endif()
  if(sections MATCHES "\\.CRT\\$XC")
    message(FATAL_ERROR "${obj} needs global constructors")
  endif()
endforeach()
