# A cross build holds the agent, the stand-ins of its two libraries, sa-host and the unit tests, and runs them under
# qemu-user in a handset of the machine's own code: init and the sandbox make namespaces, which the emulator cannot.
# SA_NATIVE is the native build that the handset comes from. Sets, for the tests:
#   handset_run  boots a handset with the emulated code's libraries in it
#   emulated     what stands in front of an emulated program there
set(SA_NATIVE ${CMAKE_SOURCE_DIR}/build/default CACHE PATH "Build directory whose handset runs what is built here")
set(emulated_libraries /desk/arm)
set(emulated /usr/bin/${SA_ARM_EMULATOR} -L ${SA_ARM_ROOT} -E LD_LIBRARY_PATH=${emulated_libraries}:/system/lib)
set(handset_run ${SA_NATIVE}/handset/desk/handset run --bring $<TARGET_FILE:log>:${emulated_libraries}/liblog.so
  --bring $<TARGET_FILE:cutils>:${emulated_libraries}/libcutils.so)
