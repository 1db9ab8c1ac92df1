// Records that stand inside several messages.
// How to read and extend the list: declare_records.h.
// clang-format off

PART(ABS_TIME, 6)
    I16(hh, check("range(0,59)"))
    I16(mm, check("range(0,59)"))
    I16(ss, check("range(0,59)"))
END

PART(ABS_TIME2, 6)
    I16(abs2_hh, check("range(0,59)"))
    I16(abs2_mm, check("range(0,59)"))
    I16(abs2_ss, check("range(0,59)"))
END

PART(TIMESTAMP, 16)
    I16(jjjj)
    I16(mo, check("range(0,12)"))
    I16(tt, check("range(0,31)"))
    I16(hh, check("range(0,24)"))
    I16(mi, check("range(0,59)"))
    I16(ss, check("range(0,59)"))
    I32(ns)
END

PART(CONNTAB1, 416)
    STRING(component, 200, rule_terminated)
    STRING(connection, 200, rule_terminated)
    RECORD(connTimeStamp, TIMESTAMP, rule_terminated, rule_filter)
END

PART(DS, 4)
    U32(dyn_service)
END

PART(INFOTEXT, 32)
    TEXT(last_rp, 8)
    TEXT(infotext, 24)
END

PART(OUTFILE, 513)
    CHAR(ulogin)
    STRING(outfile, 512, check("notempty()"))
END

PART(QUITT_MSG2, 8)
    I32(msg2_1_4)
    I32(msg2_5_8)
END

PART(SDMAIL2X, 8)
    CHAR(type)
    CHAR(flag)
    PAD(filler, 2)
    I32(len)
    SIZED_TEXT(text, len, here)
END

PART(SNDMAILX, 4)
    CHAR(type)
    CHAR(flag)
    U16(len)
    SIZED_TEXT(text, len, here)
END

PART(STATUS_VALUE, 1225)
    STRING(name, 200)
    STRING(value, 1024, rule_terminated)
    CHAR(type)
END

PART(STEPLIST, 256)
    STRING(step_name, 254, rule_terminated)
    I16(step_retcode, rule_terminated, rule_filter)
END

PART(SUB_EXSTART_1, 8)
    CHAR(Comp1, values(1))
    CHAR(Comp2, values(1))
    CHAR(Comp3, values(1))
    PAD(filler, 5)
END

PART(TIMESTAMP2, 16)
    I16(jjjj, rule_filter)
    I16(mo, check("range(0,12)"), rule_filter)
    I16(tt, check("range(0,31)"), rule_filter)
    I16(hh, check("range(0,24)"), rule_filter)
    I16(mi, check("range(0,59)"), rule_filter)
    I16(ss, check("range(0,59)"), rule_filter)
    I32(ns, rule_filter)
END

PART(VALUETAB, 1226)
    STRING(name, 200, rule_terminated)
    STRING(value, 1024, rule_terminated)
    STRING(isencrypted, 2, rule_terminated)
END

PART(VARTAB, 455)
    STRING(varname, 200, rule_terminated)
    STRING(varinhalt, 255, rule_terminated)
END

PART(VERS, 520)
    I16(major, check("gt(0)"))
    I16(minor)
    I16(patch)
    TEXT(release_id, 256, check("notempty()"))
    TEXT(remote_id, 256)
    PAD(filler, 2)
END

PART(ZEITZONE_STR, 4)
    I16(zz_hh)
    I16(zz_mi)
END

PART(BINPATHS, 1024)
    STRING(task_cache_path, 512)
    STRING(client_cache_path, 512)
END

PART(BINTAB, 936)
    TEXT(object_name, 200)
    TEXT(resource_name, 200)
    TEXT(file_name, 512)
    RECORD(mod_date, TIMESTAMP)
    CHAR(cache_type, values(2))
    PAD(filler, 7)
END

PART(REPTAB, 259)
    TEXT(reporttyp, 4)
    TEXT(filename, 255)
END
