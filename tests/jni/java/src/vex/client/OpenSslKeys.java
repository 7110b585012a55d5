package vex.client;

import java.io.InputStream;
import java.nio.file.Files;
import java.nio.file.Path;
import java.security.cert.CertificateFactory;
import java.security.cert.X509Certificate;
import java.util.ArrayList;
import java.util.List;
import vex.jni.OpenSslCommand;

/** Keys of every kind, and their certificates, made by openssl. */
enum OpenSslKeys {
    RSA("rsa:2048"),
    EC("ec", "ec_paramgen_curve:P-256"),
    P384("ec", "ec_paramgen_curve:P-384"),
    P521("ec", "ec_paramgen_curve:P-521"),
    /** For RSASSA-PSS only, with any parameters. */
    PSS("rsa-pss", "rsa_keygen_bits:2048"),
    /** With SHA-384 and a salt of 20 bytes or more. */
    PSS_SHA384("rsa-pss", "rsa_keygen_bits:2048", "rsa_pss_keygen_md:sha384", "rsa_pss_keygen_mgf1_md:sha384",
        "rsa_pss_keygen_saltlen:20"),
    /** With a longer salt than the toolkit makes. */
    PSS_LONG_SALT("rsa-pss", "rsa_keygen_bits:2048", "rsa_pss_keygen_md:sha256", "rsa_pss_keygen_mgf1_md:sha256",
        "rsa_pss_keygen_saltlen:40"),
    ED25519("ed25519"),
    ED448("ed448");

    private final String type;
    private final String[] options;

    OpenSslKeys(String type, String... options) {
        this.type = type;
        this.options = options;
    }

    /** Writes a PEM file without a PIN; returns the certificate. */
    X509Certificate write(Path pem) throws Exception {
        Path key = Path.of(pem + ".key");
        List<String> command = new ArrayList<>(List.of("req", "-x509", "-newkey", type, "-nodes", "-days", "30",
            "-subj", "/CN=" + this, "-keyout", key.toString(), "-out", pem.toString()));
        for (String option : options) {
            command.addAll(List.of("-pkeyopt", option));
        }
        if (this == PSS_SHA384) {
            command.add("-sha384");
        }
        new OpenSslCommand(pem.getParent()).run(command.toArray(new String[0]));
        X509Certificate certificate;
        try (InputStream stream = Files.newInputStream(pem)) {
            certificate = (X509Certificate) CertificateFactory.getInstance("X.509").generateCertificate(stream);
        }
        Files.writeString(pem, Files.readString(pem) + Files.readString(key));
        return certificate;
    }
}
