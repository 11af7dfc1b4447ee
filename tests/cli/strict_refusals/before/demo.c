// previous source
