"""What the shared libraries export and import, function by function."""

KZMUTIL = {"KzmutilCreateNamedFileMapping", "KzmutilCreateNamedMutex", "KzmutilGetInstallPath",
           "KzmutilOpenNamedFileMapping"}
KZMLOG = {"kzmlog_close", "kzmlog_open", "kzmlog_write"}
KZMXML = {"xmllib_get_value", "xmllib_init", "xmllib_load_config", "xmllib_load_policy", "xmllib_term",
          "xmllib_unload_config", "xmllib_unload_policy"}
KZMKERNEL = {"kzmkernel_begin_read", "kzmkernel_close", "kzmkernel_create_mapping", "kzmkernel_create_mutex", "kzmkernel_end_read", "kzmkernel_explanation",
             "kzmkernel_find_other_user", "kzmkernel_last_error",
             "kzmkernel_look_count", "kzmkernel_look_count_get", "kzmkernel_map_view", "kzmkernel_mutex_info_get", "kzmkernel_note",
             "kzmkernel_note_read", "kzmkernel_object_number", "kzmkernel_open_mapping", "kzmkernel_open_mutex", "kzmkernel_release", "kzmkernel_set_last_error", "kzmkernel_sleep", "kzmkernel_unmap_view",
             "kzmkernel_view_size", "kzmkernel_wait"}

_LIBRARY = """
    create attach detach delete clear dump
    rolock rounlock rwlock rwunlock
    setmaxvalue_ex getmaxvalue_ex sethbinfo_ex gethbinfo_ex
    setwaitstat getwaitstat setbwflag getbwflag setbwflagdisk getbwflagdisk setclstat getclstat
    addnode rmnode modifynode enumnode getnodepri getnodename
    setnodestat getnodestat setnodestat_nw getnodestat_nw setdownnotifystat getdownnotifystat
    setisolateflag getisolateflag setpingstat getpingstat setholdstat getholdstat
    getnodecombstat chkalivesv
    addhbrsc addnprsc rmhbrsc rmnprsc modifyhbrsc modifynprsc gethbrscpri getnprscpri gethbrscinfo getnprscinfo
    enumhbtype enumnptype enumhbrsc enumnprsc
    sethbrscstat setnprscstat gethbrscstat getnprscstat sethbrscsvstat setnprscsvstat gethbrscsvstat getnprscsvstat
    enumhbrscsvstat enumnprscsvstat enumsvhbrscstat enumsvnprscstat settypehbstat settypenpstat
    sethbdescript setnpdescript gethbdescript getnpdescript
    addhbrscsvstat addnprscsvstat rmhbrscsvstat rmnprscsvstat
    setnpsimu getnpsimu getnpsimuflag
    setrscsvstat_nw getrscsvstat_nw enumrscsvstat_nw enumsvrscstat_nw
    setfstrscstat getfstrscstat setfstdescript getfstdescript setfstrscpid getfstrscpid
"""
KZMSHMNM = {"shmnm_" + name for name in _LIBRARY.split()}

SHMNMPICTURE = {"shmnmpicture_" + name for name in """
    version open_live open_file open_address update json value holds findings warning error free
""".split()}

# Of the library and of the companions that an installation may replace.
EXPORTS = {"kzmshmnm": KZMSHMNM, "kzmutil": KZMUTIL, "kzmxml": KZMXML, "kzmlog": KZMLOG}

# Of the packages.
PROGRAMS = {"linux": ("shmnmctl", "shmnmweb", "shmnmbridge", "shmnm-keeper"), "windows": ("shmnmctl.exe", "shmnmweb.exe", "shmnmbridge.exe")}
