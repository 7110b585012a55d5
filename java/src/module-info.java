/** Signs text and data with a client toolkit: {@link vex.client}, and the natives below it. */
module vex.client {
    requires java.logging;

    exports vex.client;
    exports vex.jni;

    provides java.security.Provider with vex.client.SigningProvider;
}
