/** @file
 * Register numbers of the cameras.
 *
 * A register's byte address on the wire is its number times four. Numbers below 10000 are camera
 * registers; numbers from 10000 on are interpreted by the camera's firmware; REG_BUS_ACCESS opens a
 * raw window on its bus. Three numbers carry two names each (211, 10100, 10102): cameras differ in
 * what they keep there, and both names stay in use.
 */
#ifndef KELO_REGISTERS_H
#define KELO_REGISTERS_H

/** Numbers of registers, as keloGetRegisterInt and its like take them. What stands behind a number
 * depends on the camera: where a unit is said to be the camera's, see its manual. */
typedef enum KELO_REGISTERS {
    REG_SENSORWIDTH = 0,      /**< pixels of the sensor in a row; read-only */
    REG_SENSORHEIGHT = 1,     /**< rows of the sensor; read-only */
    REG_WIDTH = 2,            /**< width of the image, pixels; the library reads it as keep-alive */
    REG_HEIGHT = 3,           /**< height of the image, rows */
    REG_OFFSETX = 4,          /**< first column of the image on the sensor, pixels */
    REG_OFFSETY = 5,          /**< first row of the image on the sensor */
    REG_REVERSEX = 6,         /**< other than 0: mirrored left to right */
    REG_REVERSEY = 7,         /**< other than 0: mirrored top to bottom */
    REG_PIXELFORMAT = 8,      /**< format of the pixels */
    REG_ACQUISITIONMODE = 16, /**< how an acquisition goes: without end, or so many images */
    REG_ACQUISITIONSTART = 17,      /**< written 0xFFFFFFFF: the streams start */
    REG_ACQUISITIONSTOP = 18,       /**< written 0xFFFFFFFF: the streams stop */
    REG_ACQUISITIONFRAMES = 20,     /**< images of one acquisition; 0: no limit */
    REG_FRAMERATE = 21,             /**< images per second, in the camera's unit */
    REG_TRIGGERMODE = 22,           /**< other than 0: each image waits for a trigger */
    REG_TRIGGERSOFTWARE = 23,       /**< written: one trigger */
    REG_EXPOSURETIME = 25,          /**< exposure time, in the camera's unit */
    REG_HDR_ENABLE = 26,            /**< other than 0: high dynamic range on */
    REG_HDR_SETTING = 27,           /**< preset of the high dynamic range */
    REG_HDR_VLOW2 = 28,             /**< second level of the high dynamic range */
    REG_HDR_VLOW3 = 29,             /**< third level of the high dynamic range */
    REG_HDR_KP1_POS = 30,           /**< position of the first knee point */
    REG_HDR_KP2_POS = 31,           /**< position of the second knee point */
    REG_GAIN = 32,                  /**< gain of the sensor */
    REG_SENSOR_VRAMP = 33,          /**< ramp voltage of the sensor's converter */
    REG_GAIN_TUNING = 34,           /**< fine correction of the gain */
    REG_BLACKLEVEL = 36,            /**< level that is taken for black */
    REG_DEVICEFIRMWAREVERSION = 40, /**< version of the firmware; read-only */
    REG_CAMERASETTINGSSLOT = 48,    /**< slot that REG_LOADSAVESETTINGS means */
    REG_LOADSAVESETTINGS = 49,      /**< written: loads or saves the settings of the slot */
    REG_LINEFIXOFFSET = 50,         /**< offset of the correction of lines */
    REG_LINEFIXENABLE = 51,         /**< other than 0: correction of lines on */
    REG_MINTIME = 53, /**< shortest time of an image, in the camera's unit; read-only */
    REG_SENSORREGISTERNUMBER = 54, /**< the sensor's own register that the next one means */
    REG_SENSORREGISTERVALUE = 55,  /**< value of the sensor's own register */
    REG_IMAGEPIPELINERESET = 60,   /**< written: the image processing begins anew */
    REG_DEVICETEMPERATURE = 64,    /**< temperature of the camera, in its unit; read-only */
    REG_SENSOR_TYPE = 71,          /**< kind of the sensor; read-only */
    REG_TRIGGERSELECTOR = 80,      /**< trigger that the registers behind this one mean */
    REG_TRIGGERSOURCE = 81,     /**< where triggers come from: an input line, a timer, software */
    REG_TRIGGERACTIVATION = 82, /**< edge or level that triggers */
    REG_TRIGGERDELAY = 83,      /**< time from the trigger to the exposure, in the camera's unit */
    REG_TRIGGERDIVIDER = 84,    /**< triggers for one image */
    REG_TRIGGERFREQUENCY = 85,  /**< frequency of the internal trigger, in the camera's unit */
    REG_TRIGGERDEBOUNCE = 86,   /**< time for which an edge must last, in the camera's unit */
    REG_LINE0CONFIG = 88,       /**< direction and use of input and output line 0 */
    REG_LINE1CONFIG = 89,       /**< direction and use of input and output line 1 */
    REG_LINE2CONFIG = 90,       /**< direction and use of input and output line 2 */
    REG_USEROUTPUTVALUE = 92,   /**< bit mask of the outputs that the application sets */
    REG_TIMERDURATION = 96,     /**< how long the timer's signal lasts, in the camera's unit */
    REG_TIMERDELAY = 97,   /**< time from the timer's trigger to its signal, in the camera's unit */
    REG_TIMERRESET = 98,   /**< written: the timer begins anew */
    REG_TIMERVALUE = 99,   /**< present value of the timer; read-only */
    REG_TIMERSTATUS = 100, /**< what the timer is doing; read-only */
    REG_TIMERTRIGGERSOURCE = 101,       /**< what starts the timer */
    REG_TIMERTRIGGERACTIVATION = 102,   /**< edge that starts the timer */
    REG_MAC_0_HIGH = 130,               /**< first two bytes of the MAC address; read-only */
    REG_MAC_0_LOW = 131,                /**< last four bytes of the MAC address; read-only */
    REG_CURR_IP_CONFIG_0 = 133,         /**< how the present address was found */
    REG_CURR_IP_ADDR_0 = 137,           /**< present IPv4 address */
    REG_CURR_SUBNET_MASK_0 = 141,       /**< present subnet mask */
    REG_CURR_GATEWAY_0 = 145,           /**< present gateway */
    REG_MANUFACTURER_NAME = 146,        /**< text, four characters in each register; read-only */
    REG_MODEL_NAME = 154,               /**< text; read-only */
    REG_DEVICE_VERSION = 162,           /**< text; read-only */
    REG_SERIAL_NUMBER = 182,            /**< text; read-only */
    REG_USER_DEFINED_NAME = 186,        /**< text that the user chooses */
    REG_HEARTBEAT_TIMEOUT = 206,        /**< milliseconds of silence that end a session; 0: never */
    REG_TIMESTAMP_TICK_FREQ_HIGH = 207, /**< ticks per second, upper 32 bits; read-only */
    REG_TIMESTAMP_TICK_FREQ_LOW = 208,  /**< ticks per second, lower 32 bits; read-only */
    REG_TIMESTAMP_CONTROL = 209,        /**< written: resets the clock, or takes its value */
    REG_TIMESTAMP_VALUE_HIGH = 210,     /**< value of the clock, upper 32 bits */
    REG_TIMESTAMP_VALUE_LOW = 211,      /**< value of the clock, lower 32 bits */
    REG_PERSIST_IP_ADDR_0 = 211,        /**< address after a restart; a second name of 211 */
    REG_PERSIST_SUBNET_MASK_0 = 215,    /**< subnet mask after a restart */
    REG_PERSIST_GATEWAY_0 = 219,        /**< gateway after a restart */
    REG_LINK_SPEED_0 = 220,             /**< speed of the link, Mbit/s; read-only */
    REG_CONTROL = 256,                  /**< who controls the camera */
    REG_STREAMPORT = 257,            /**< UDP port of the host for images; the library writes it */
    REG_MAX_STREAMS_MASK = 258,      /**< streams that the camera has, one bit each; read-only */
    REG_USED_STREAMS_MASK = 259,     /**< streams that are enabled, one bit each */
    REG_TCP_STREAMPORT = 260,        /**< TCP port of the camera for streams; read-only */
    REG_STREAM0_FORMAT = 264,        /**< stream 0: format of the data; 0x24: run-length coded */
    REG_STREAM0_FRAME_SIZE = 265,    /**< stream 0: bytes of the largest image */
    REG_STREAM0_HEADER_FORMAT = 266, /**< stream 0: kind of the header in front of the pixels */
    REG_STREAM0_HEADER_SIZE = 267,   /**< stream 0: bytes of that header */
    REG_STREAM0_OPTIONS = 268,       /**< stream 0: bits of KELO_STREAM_OPTIONS */
    REG_STREAM1_FORMAT = 272,        /**< stream 1: as of stream 0; stream s: 264 + 8 s */
    REG_STREAM1_FRAME_SIZE = 273,    /**< stream 1: bytes of the largest image */
    REG_STREAM1_HEADER_FORMAT = 274, /**< stream 1: kind of the header in front of the pixels */
    REG_STREAM1_HEADER_SIZE = 275,   /**< stream 1: bytes of that header */
    REG_STREAM1_OPTIONS = 276,       /**< stream 1: bits of KELO_STREAM_OPTIONS */
    REG_INTER_FRAME_GAP = 320,       /**< pause between two image packets, in the camera's unit */
    REG_MTU = 321,                   /**< bytes of an image packet, with IP and UDP headers */
    REG_REBOOT = 322,                /**< written 1: the camera restarts */
    REG_CAMERA_USED = 323,           /**< written 1: claimed for this host; 0: free */
    REG_DEVICETEMPERATURE2 = 324,    /**< second temperature, in the camera's unit; read-only */
    REG_NUM_SENSOR_CHANNELS = 325,   /**< channels of the sensor; read-only */
    REG_TRIGGER_FRAMES_SET = 352,    /**< images for one trigger */
    REG_TRIGGER_FRAMES_GET = 353,    /**< images for one trigger, as they are in force; read-only */
    KELO_CMD_FIRMWARE = 10000,       /**< memory window of firmware payloads */
    KELO_CMD_SAVE_PARAMS_TO_FLASH = 10001,      /**< written: settings outlast a restart */
    KELO_CMD_SAVE_CALIBRATION_TO_FLASH = 10002, /**< written: calibration outlasts a restart */
    REG_SENSOR_IMAGES_COUNT_DROPED = 10010,     /**< images that the camera dropped; read-only */
    REG_SENSOR_IMAGES_COUNT_PENDING = 10011,    /**< images that wait in the camera; read-only */
    REG_INPUTS_STATUS = 10020, /**< levels of the input lines, one bit each; read-only */
    REG_SYS_STATUS = 10021,    /**< state of the camera; read-only */
    REG_REBOOT_WITH_FACTORY_SETTINGS = 10022,  /**< written 1: restarts as it left the factory */
    REG_IMAGING_PROBLEM_EVENT_COUNTER = 10023, /**< troubles of the imaging so far; read-only */
    REG_IO_TEST_OUTPUT = 10100,       /**< levels to put on the lines, for a test of the wiring */
    REG_HDR_SENSOR_EXP_DUAL = 10100,  /**< dual exposure; a second name of 10100 */
    REG_IO_TEST_DIRIN = 10101,        /**< lines that are inputs in a test of the wiring */
    REG_IO_TEST_INPUT = 10102,        /**< levels that are seen in it */
    REG_HDR_SENSOR_EXP_TIME2 = 10102, /**< second exposure; a second name of 10102 */
    REG_HDR_SENSOR_NR_SLOPES = 10103, /**< number of slopes */
    REG_HDR_SENSOR_EXP_STEP = 10104,  /**< step between exposures */
    REG_HDR_SENSOR_EXP_SEQ = 10105,   /**< sequence of exposures */
    REG_HDR_SENSOR_ENABLE_EXT_EXP_TRIGGER = 10106, /**< exposure by external trigger */
    REG_BAD_PIXEL_LOCATIONS = 11000,               /**< first register of the table of bad pixels */
    REG_BINNING_XY = 20000,                        /**< pixels that are put together both ways */
    REG_BINNING_FRAMERATE = 20001,                 /**< image rate with binning */
    REG_BINNING_X = 20002,                         /**< pixels that are put together in a row */
    REG_BINNING_Y = 20003,                         /**< rows that are put together */
    REG_BUS_ACCESS = 524288 /**< first register of a raw window on the camera's bus */
} KELO_REGISTERS;

/** Bits of a stream's options register (REG_STREAM0_OPTIONS and its like of the other streams). */
typedef enum KELO_STREAM_OPTIONS {
    STREAM_OPTIONS_USE_TCP = 1,               /**< the stream goes over TCP */
    STREAM_OPTIONS_FRAMESIZE_MANUAL = 0x10000 /**< the frame size is set by the application */
} KELO_STREAM_OPTIONS;

#endif /* KELO_REGISTERS_H */
