package vex.demo;

import java.io.ByteArrayInputStream;
import java.io.IOException;
import java.nio.charset.StandardCharsets;
import java.nio.file.Files;
import java.nio.file.Path;
import java.security.GeneralSecurityException;
import java.security.MessageDigest;
import java.security.Signature;
import java.security.cert.Certificate;
import java.security.cert.CertificateFactory;
import java.security.cert.X509Certificate;
import java.util.Arrays;
import java.util.Base64;
import java.util.Collection;
import java.util.HexFormat;
import java.util.List;
import java.util.Locale;
import java.util.Optional;

/** Signs a text in every way there is, writes the signatures to files and verifies them. */
public final class SigningDemo {
    private static final int EXIT_FAILED = 1;
    private static final int EXIT_USAGE = 2;
    private static final String EMAIL_PROTECTION = "1.3.6.1.5.5.7.3.4";

    private final Arguments arguments;
    private final Content content;
    private final OutputDirectory out;

    private SigningDemo(Arguments arguments) throws DemoException {
        this.arguments = arguments;
        content = readContent(arguments);
        out = new OutputDirectory(arguments.out);
    }

    /**
     * Runs the demo and ends the JVM with its exit status.
     *
     * @param args see --help
     */
    public static void main(String[] args) {
        System.exit(run(args));
    }

    private static int run(String[] args) {
        try {
            Arguments arguments = Arguments.parse(args);
            if (arguments.help) {
                System.out.println(Arguments.USAGE);
            } else {
                new SigningDemo(arguments).run();
            }
            return 0;
        } catch (DemoException.Usage e) {
            System.err.println(e.getMessage() + ".");
            System.err.println(Arguments.USAGE);
            return EXIT_USAGE;
        } catch (DemoException | UnsatisfiedLinkError e) {
            System.err.println(e.getMessage());
            return EXIT_FAILED;
        } catch (GeneralSecurityException e) {
            System.err.println("The JDK's cryptography failed: " + e);
            return EXIT_FAILED;
        }
    }

    private void run() throws DemoException, GeneralSecurityException {
        try (Signer signer = new Signer(arguments.store)) {
            signer.setDigest(arguments.digest);
            for (Arguments.Filter filter : arguments.filters) {
                signer.addFilter(filter.type(), filter.value());
            }
            List<CertificateRecord> records = listCertificates(signer);

            System.out.println();
            System.out.println("Signing " + content.bytes().length + " bytes ("
                + (content.isText() ? "a text" : "given as Base64") + ") with digest " + arguments.digest + ":");
            Path contentFile = out.write("content.bin", content.bytes(), "what is signed, byte for byte");
            byte[] p1 = signP1(signer);
            byte[][] p7 = new byte[P7Form.values().length][];
            for (P7Form form : P7Form.values()) {
                p7[form.ordinal()] = signP7(signer, form);
            }

            System.out.println();
            System.out.println("Verifying:");
            X509Certificate certificate = signerCertificate(p7[P7Form.DETACHED_WITH_CERTIFICATE.ordinal()], records);
            Path certificateFile =
                out.writePem("cert.pem", "CERTIFICATE", certificate.getEncoded(), "the certificate, as PEM");
            verifyP1(p1, certificate);
            verifyP7(contentFile, certificateFile, certificate);
        }
    }

    private static Content readContent(Arguments arguments) throws DemoException {
        if (arguments.text != null) {
            return arguments.form == Arguments.Form.BASE64
                ? Content.ofBase64(arguments.text)
                : Content.ofText(arguments.text);
        }
        String source = arguments.file == null ? "Standard input" : "The file " + arguments.file;
        byte[] bytes;
        try {
            bytes = arguments.file == null ? System.in.readAllBytes() : Files.readAllBytes(arguments.file);
        } catch (IOException e) {
            throw new DemoException(source + " cannot be read: " + e);
        }
        return switch (arguments.form) {
            case TEXT -> Content.ofText(Content.decodeUtf8(source, bytes));
            case BASE64 -> Content.ofBase64(new String(bytes, StandardCharsets.ISO_8859_1));
            case BINARY -> Content.ofBytes(bytes);
        };
    }

    private static List<CertificateRecord> listCertificates(Signer signer) throws DemoException {
        List<CertificateRecord> records = signer.certificates();
        if (records.isEmpty()) {
            throw new DemoException("No certificate of the store can sign: each is expired, lacks its private key,"
                + " is not for signing or does not pass the filters.");
        }
        System.out.println(records.size() + (records.size() == 1 ? " certificate" : " certificates") + " can sign:");
        for (CertificateRecord record : records) {
            System.out.println("  " + record.describe());
        }
        return records;
    }

    private byte[] signP1(Signer signer) throws DemoException {
        String base64 = signer.signP1(content);
        byte[] signature = Base64.getDecoder().decode(base64);
        out.write("p1.b64", (base64 + "\n").getBytes(StandardCharsets.US_ASCII), "the P1 signature in Base64");
        out.write("p1.sig", signature, "the same in binary");
        return signature;
    }

    private byte[] signP7(Signer signer, P7Form form) throws DemoException {
        byte[] signature = Base64.getDecoder().decode(signer.signP7(content, form.detached, form.withCertificate));
        out.write(form.fileName + ".der", signature, form.description);
        out.writePem(form.fileName + ".pem", "CMS", signature, "the same as PEM");
        return signature;
    }

    /** The certificate inside a P7 signature that includes it. */
    private static X509Certificate signerCertificate(byte[] p7, List<CertificateRecord> records)
            throws DemoException, GeneralSecurityException {
        Collection<? extends Certificate> inside =
            CertificateFactory.getInstance("X.509").generateCertificates(new ByteArrayInputStream(p7));
        if (inside.size() != 1) {
            throw new DemoException("The P7 signature contains " + inside.size() + " certificates, not one.");
        }
        X509Certificate certificate = (X509Certificate) inside.iterator().next();
        byte[] digest = MessageDigest.getInstance("SHA-256").digest(certificate.getEncoded());
        String fingerprint = HexFormat.of().withUpperCase().formatHex(digest);
        for (CertificateRecord record : records) {
            if (record.fingerprint().equalsIgnoreCase(fingerprint)) {
                System.out.println("  signed by the " + record.keyAlgorithm() + " certificate of " + record.subject());
                return certificate;
            }
        }
        throw new DemoException("The certificate that signed is not in the list: SHA-256 " + fingerprint + ".");
    }

    private void verifyP1(byte[] p1, X509Certificate certificate) throws DemoException, GeneralSecurityException {
        String algorithm = jdkAlgorithm(arguments.digest, certificate.getPublicKey().getAlgorithm());
        Signature verifier = Signature.getInstance(algorithm);
        verifier.initVerify(certificate.getPublicKey());
        verifier.update(content.bytes());
        if (!verifier.verify(p1)) {
            throw new DemoException("The JDK (" + algorithm + ") refuses the P1 signature.");
        }
        System.out.println("  P1: good (the JDK's " + algorithm + ")");
    }

    private void verifyP7(Path contentFile, Path certificateFile, X509Certificate certificate)
            throws DemoException, GeneralSecurityException {
        Optional<OpenSsl> openSsl = OpenSsl.find();
        if (openSsl.isEmpty()) {
            System.out.println("  P7: not verified here, the openssl command is not on the PATH");
            return;
        }
        List<String> purposes = certificate.getExtendedKeyUsage();
        boolean forMail = purposes == null || purposes.contains(EMAIL_PROTECTION);
        Path recovered = out.path("recovered.bin");
        for (P7Form form : P7Form.values()) {
            List<String> command = OpenSsl.verifyCommand(out.path(form.fileName + ".der"),
                form.detached ? contentFile : null, certificateFile, form.withCertificate, forMail, recovered);
            System.out.println("  " + OpenSsl.quote(command));
            try {
                openSsl.get().run(command);
                if (!Arrays.equals(Files.readAllBytes(recovered), content.bytes())) {
                    throw new DemoException("openssl verified other content than was signed: see " + recovered);
                }
                Files.delete(recovered);
            } catch (IOException e) {
                throw new DemoException("What openssl verified cannot be read: " + e);
            }
            System.out.println("  P7, " + form.description + ": good (openssl)");
        }
    }

    /** The JDK's name for a signature algorithm, for example SHA256withECDSA. */
    private static String jdkAlgorithm(String digest, String keyAlgorithm) {
        String name = digest.toUpperCase(Locale.ROOT).replaceFirst("^SHA(2-|-)", "SHA");
        return name + "with" + (keyAlgorithm.equals("EC") ? "ECDSA" : keyAlgorithm);
    }

    private enum P7Form {
        DETACHED_WITH_CERTIFICATE(true, true, "p7-detached-cert"),
        DETACHED(true, false, "p7-detached"),
        ATTACHED_WITH_CERTIFICATE(false, true, "p7-attached-cert"),
        ATTACHED(false, false, "p7-attached");

        final boolean detached;
        final boolean withCertificate;
        final String fileName;
        final String description;

        P7Form(boolean detached, boolean withCertificate, String fileName) {
            this.detached = detached;
            this.withCertificate = withCertificate;
            this.fileName = fileName;
            description = (detached ? "detached " : "attached ") + (withCertificate ? "with" : "without") + " certificate";
        }
    }
}
