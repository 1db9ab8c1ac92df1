// File events and file scanning.
// How to read and extend the list: declare_records.h.
// clang-format off

PART(FSC_CONT, 520)
    TEXT(filename, 256, check("notempty()"))
    TEXT(chars, 256, check("notempty()"))
    CHAR(type, check("enum('C','N')"))
    PAD(filler, 7)
END

PART(SUB_FH_APINF, 320)
    I64(totaldiscspc)
    I64(useddiscspc)
    I64(freediscspc)
    I32(anz_files)
    I32(anz_folders)
    I64(sizeoffiles)
    I64(usedszeofiles)
    I64(relablesize)
    I32(bytesperunit)
    PAD(filler, 4)
    TEXT(filename, 256)
END

MESSAGE(FH_CHK, 568)
    I32(ah_idnr, check("gt(0)"))
    TEXT(filename, 255, check("notempty()"))
    TEXT(logininfo, 200)
    BYTES(passw, 63)
    CHAR(incsubdirs, check("enum('1','2')"))
    CHAR(type, check("enum('1','2','3')"))
    CHAR(op, check("enum('1','2','3','4','5','6')"))
    PAD(filler, 3)
    U64(size)
    I16(durhour, check("range(0,59)"))
    I16(durminute, check("range(0,59)"))
    CHAR(type2, check("enum('0','1','2')"))
    CHAR(considerallfiles, check("enum('1','2')"))
    PAD(filler2, 2)
    I32(pwd_dist)
    I32(pwd_len)
    SIZED_BYTES(password, pwd_len, pwd_dist, rule_variable)
END

MESSAGE(FH_CONT, 24)
    I32(ah_idnr, check("gt(0)"))
    PAD(filler, 4)
END

MESSAGE(FH_DEL, 548)
    TEXT(filename, 256, check("notempty()"))
    TEXT(logininfo, 200)
    BYTES(passw, 63)
    PAD(filler, 1)
    I32(ah_idnr, check("gt(0)"))
    I32(pwd_dist)
    I32(pwd_len)
    SIZED_BYTES(password, pwd_len, pwd_dist, rule_variable)
END

MESSAGE(FH_WADEL, 20)
    I32(ah_idnr, check("gt(0)"))
END

MESSAGE(FH_PINF, 552)
    TEXT(logininfo, 200)
    BYTES(passw, 63)
    CHAR(unused)
    TEXT(path, 256)
    I32(ah_idnr, check("gt(0)"))
    I8(inclSubDir, check("enum(1,0)"))
    PAD(filler, 3)
    I32(pwd_dist)
    I32(pwd_len)
    SIZED_BYTES(password, pwd_len, pwd_dist, rule_variable)
END

MESSAGE(FH_APINF, 336)
    RECORD(fh_apinf, SUB_FH_APINF)
END

MESSAGE(FH_AQUIT, 544)
    I32(err_Nr)
    TEXT(err_Ins, 256)
    TEXT(err_SysTxt, 256)
    I32(ah_idnr, check("gt(0)"))
    TEXT(msg_type, 8, check("notempty()"))
END

MESSAGE(FH_HIT, 312)
    I32(ah_idnr, check("gt(0)"))
    I32(count)
    RECORD(timestamp, TIMESTAMP)
    TEXT(file_name, 256)
    I64(file_size)
    I32(file_count)
    CHAR(result, check("enum('Y','N')"))
    PAD(filler, 3)
END

MESSAGE(FSCAN, 312)
    I32(ah_idnr, check("gt(0)"))
    TEXT(logininfo, 200)
    BYTES(passw, 63)
    CHAR(condition, check("enum('A','O')"))
    I32(cont_entries, check("gt(0)"))
    I32(cont_dist)
    I32(code_dist)
    I32(code_len)
    PAD(filler, 4)
    I32(pwd_dist)
    I32(pwd_len)
    TABLE(cont, FSC_CONT, cont_entries, cont_dist, rule_variable)
    SIZED_BYTES(code, code_len, code_dist, rule_variable)
    SIZED_BYTES(password, pwd_len, pwd_dist, rule_variable)
END

MESSAGE(FSCANQU, 288)
    I32(ah_idnr, check("gt(0)"))
    I32(retcode, check("enum(0,1,2)"))
    PAD(filler, 4)
    I32(msgnr)
    TEXT(msg_insert, 256)
END
