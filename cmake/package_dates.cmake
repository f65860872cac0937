# package_dates.cmake: gives what goes into an archive the date of SOURCE_DATE_EPOCH, before CPack packs it.
execute_process(COMMAND find ${CPACK_TEMPORARY_DIRECTORY} -exec touch -h -d @$ENV{SOURCE_DATE_EPOCH} {} +
  COMMAND_ERROR_IS_FATAL ANY)
