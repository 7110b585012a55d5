# cpack reads this before it makes the packages. All files in them get this date, unless the caller gives another one.
if(NOT DEFINED ENV{SOURCE_DATE_EPOCH})
  set(ENV{SOURCE_DATE_EPOCH} ${CPACK_VEX_DATE_EPOCH})
endif()
