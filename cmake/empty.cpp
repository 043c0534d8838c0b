// Gives a library target a source before its folder has one.
