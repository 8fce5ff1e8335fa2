# The subsystems of Dovel/ and, for each, the others it may include. The order:
#   bundle <- types <- sync <- session, transport <- session, transport <- files
# (settings stands alone). Each list is closed: what a subsystem may include, the ones
# it includes may include too, so a header compiles in every subsystem that may use it.
set(DOVEL_SUBSYSTEMS transport bundle types sync session files settings)
set(DOVEL_USES_transport "")
set(DOVEL_USES_bundle "")
set(DOVEL_USES_types "bundle")
set(DOVEL_USES_sync "bundle;types")
set(DOVEL_USES_session "bundle;types;sync;transport")
set(DOVEL_USES_files "transport")
set(DOVEL_USES_settings "")
