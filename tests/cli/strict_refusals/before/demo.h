// previous header
