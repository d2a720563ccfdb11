// Which agent this build makes (the RAVEL_PROFILE build option). The shared agent serves every
// account of a machine: one data folder opened to all of them, one agent per machine. The
// per-user agent runs once per account and keeps everything it makes to that account. Code that
// differs between the two asks these constants, so both branches are compiled in every build.
#pragma once

#ifndef RAVEL_PROFILE_PER_USER
#error "RAVEL_PROFILE_PER_USER comes from the build (the RAVEL_PROFILE option)"
#endif

// True in the per-user build.
constexpr bool kPerUser = RAVEL_PROFILE_PER_USER != 0;
