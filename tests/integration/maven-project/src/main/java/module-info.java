module signing {
    requires vex.client;
    uses java.security.Provider;
}
