[[maybe_unused]] static int placeholder_rehearsal;
